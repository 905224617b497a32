#include "support/scratch.h"

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>

namespace {

class Scratch {
 public:
  Scratch() {
    if (mkdtemp(path_) == nullptr) {
      std::perror(path_);
      std::exit(1);
    }
  }
  ~Scratch() {
    std::error_code ignored;
    std::filesystem::remove_all(path_, ignored);
  }
  Scratch(const Scratch&) = delete;
  Scratch& operator=(const Scratch&) = delete;

  std::string path() const { return path_; }

 private:
  char path_[32] = "/tmp/lb_benchmarks.XXXXXX";  // of the same length everywhere
};

}  // namespace

std::string scratch_path(const std::string& name) {
  static const Scratch scratch;
  return scratch.path() + "/" + name;
}

void write_scratch(const std::string& name, const std::string& text) {
  std::ofstream(scratch_path(name)) << text;
}
