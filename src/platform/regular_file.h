// Files in whose place there may be anything. A FIFO, a socket or a device may hold up whoever
// opens, reads or writes it, or never end: it is refused, and so is more of a file than a limit.
#pragma once

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstdio>
#include <string>

#include "platform/file_descriptor.h"

// True when a FIFO, a socket or a device is at `path`. Links are followed.
inline bool is_special_file(const std::string& path) {
  struct stat status {};
  return stat(path.c_str(), &status) == 0 && !S_ISREG(status.st_mode) && !S_ISDIR(status.st_mode);
}

// Opens `path` without waiting for a FIFO's other end. Not valid on failure, with errno set.
inline FileDescriptor open_to_read(const std::string& path) {
  return FileDescriptor(open(path.c_str(), O_RDONLY | O_NONBLOCK | O_NOCTTY | O_CLOEXEC));
}

// False for a FIFO or a device, which might hold up the reader or never end.
inline bool is_regular_file(const FileDescriptor& file) {
  struct stat status {};
  return fstat(file.get(), &status) == 0 && S_ISREG(status.st_mode);
}

// Opens `path`, which may not be there yet, to write it anew. Null on failure, with errno set;
// EINVAL for a special file, which is not even opened.
inline FILE* open_to_rewrite(const std::string& path) {
  if (!is_special_file(path)) return fopen(path.c_str(), "we");
  errno = EINVAL;
  return nullptr;
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
