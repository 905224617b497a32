// A file that lives in memory, for readers that want a path.
#pragma once

#include <sys/mman.h>
#include <unistd.h>

#include <string>
#include <string_view>

#include "platform/file_descriptor.h"
#include "support/property.h"

class MemoryFile {
 public:
  explicit MemoryFile(const char* name) : file_(memfd_create(name, MFD_CLOEXEC)) {
    HOLDS(file_.valid());
    path_ = "/proc/self/fd/" + std::to_string(file_.get());
  }

  void replace(std::string_view text) {
    HOLDS(ftruncate(file_.get(), 0) == 0);
    HOLDS(pwrite(file_.get(), text.data(), text.size(), 0) == static_cast<ssize_t>(text.size()));
  }

  const std::string& path() const { return path_; }

 private:
  FileDescriptor file_;
  std::string path_;
};
