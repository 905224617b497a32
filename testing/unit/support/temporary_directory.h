// A directory of a test's own, gone with everything in it when the object goes.
#pragma once

#include <gtest/gtest.h>

#include <string>
#include <string_view>

class TemporaryDirectory {
 public:
  TemporaryDirectory();
  ~TemporaryDirectory();
  TemporaryDirectory(const TemporaryDirectory&) = delete;
  TemporaryDirectory& operator=(const TemporaryDirectory&) = delete;

  // Without a slash at its end.
  const std::string& path() const { return path_; }

  // The path of `name` in the directory; a name that is an absolute path stands for itself.
  std::string file(std::string_view name) const;

  // Writes a file in place of any old one; missing directories on the way are made. Its path.
  std::string write(std::string_view name, std::string_view content) const;

  // The file's content, empty when there is none.
  std::string read(std::string_view name) const;

  bool exists(std::string_view name) const;

 private:
  std::string path_;
};

class TemporaryDirectoryTest : public testing::Test {
 protected:
  TemporaryDirectory directory_;
};
