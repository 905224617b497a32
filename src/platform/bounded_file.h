// Reading files that may be anything: nothing but a regular file, and no more than a limit of it.
#pragma once

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <string>

#include "platform/file_descriptor.h"

// Opens `path` without waiting for a FIFO's other end. Not valid on failure, with errno set.
inline FileDescriptor open_to_read(const std::string& path) {
  return FileDescriptor(open(path.c_str(), O_RDONLY | O_NONBLOCK | O_NOCTTY | O_CLOEXEC));
}

// False for a FIFO or a device, which might hold up the reader or never end.
inline bool is_regular_file(const FileDescriptor& file) {
  struct stat status {};
  return fstat(file.get(), &status) == 0 && S_ISREG(status.st_mode);
}

// What the file holds from here on: all of it, or somewhat more than `limit` bytes. An error ends
// it as the end of the file does.
inline std::string read_up_to(const FileDescriptor& file, size_t limit) {
  std::string text;
  std::array<char, 16384> buffer;
  while (text.size() < limit) {
    const ssize_t count = read(file.get(), buffer.data(), buffer.size());
    if (count < 0 && errno == EINTR) continue;
    if (count <= 0) break;
    text.append(buffer.data(), static_cast<size_t>(count));
  }
  return text;
}
