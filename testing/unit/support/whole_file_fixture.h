// A file to be replaced, in a directory of the test's own.
#pragma once

#include <sys/stat.h>

#include <filesystem>
#include <set>
#include <string>

#include "routing/whole_file.h"
#include "support/temporary_directory.h"

inline constexpr const char* kOldText = "the text that was there before";
inline constexpr const char* kNewText = "the text that takes its place, and which is longer";

inline bool operator==(const FileReplacement& a, const FileReplacement& b) {
  return a.opened == b.opened && a.error == b.error;
}

class WholeFileFixture : public TemporaryDirectoryTest {
 protected:
  static constexpr FileReplacement kDone{.opened = true, .error = 0};

  FileReplacement replace(const std::string& text = kNewText) const {
    return replace_file(path_, text);
  }
  void write_old() const { directory_.write("routes.conf", kOldText); }
  std::string text() const { return directory_.read("routes.conf"); }
  struct stat status() const {
    struct stat result {};
    EXPECT_EQ(stat(path_.c_str(), &result), 0);
    return result;
  }
  mode_t mode() const { return status().st_mode & 07777; }

  // All that is in the directory, hidden or not.
  std::set<std::string> names() const {
    std::set<std::string> found;
    for (const auto& entry : std::filesystem::directory_iterator(directory_.path())) {
      found.insert(entry.path().filename());
    }
    return found;
  }

  const std::string path_ = directory_.file("routes.conf");
  const std::string beside_ = directory_.file(".routes.conf.new");
};
