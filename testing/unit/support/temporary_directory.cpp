#include "support/temporary_directory.h"

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>

TemporaryDirectory::TemporaryDirectory() {
  std::string name = (std::filesystem::temp_directory_path() / "lb-test-XXXXXX").string();
  if (mkdtemp(name.data()) == nullptr) {
    std::perror("mkdtemp");
    std::abort();
  }
  path_ = name;
}

TemporaryDirectory::~TemporaryDirectory() {
  std::error_code ignored;
  std::filesystem::remove_all(path_, ignored);
}

std::string TemporaryDirectory::file(std::string_view name) const {
  return (std::filesystem::path(path_) / name).string();
}

std::string TemporaryDirectory::write(std::string_view name, std::string_view content) const {
  const std::filesystem::path path = file(name);
  std::filesystem::create_directories(path.parent_path());
  std::ofstream out(path, std::ios::binary | std::ios::trunc);
  out << content;
  out.close();
  if (!out) ADD_FAILURE() << "cannot write " << path;
  return path.string();
}

std::string TemporaryDirectory::read(std::string_view name) const {
  std::ifstream in(file(name), std::ios::binary);
  std::ostringstream content;
  content << in.rdbuf();
  return content.str();
}

bool TemporaryDirectory::exists(std::string_view name) const {
  return std::filesystem::exists(file(name));
}
