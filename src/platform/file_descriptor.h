// An owned file descriptor.
#pragma once

#include <unistd.h>

#include <cerrno>

#include <utility>

// Closes its descriptor when it goes; -1 owns nothing. Keeps errno over the close, so that a caller
// may still report the failure that made it give up.
class FileDescriptor {
 public:
  FileDescriptor() = default;
  explicit FileDescriptor(int fd) : fd_(fd) {}
  ~FileDescriptor() { reset(); }
  FileDescriptor(FileDescriptor&& other) noexcept : fd_(std::exchange(other.fd_, -1)) {}
  FileDescriptor& operator=(FileDescriptor&& other) noexcept {
    if (this != &other) {
      reset();
      fd_ = std::exchange(other.fd_, -1);
    }
    return *this;
  }

  int get() const { return fd_; }
  bool valid() const { return fd_ >= 0; }
  void reset();

 private:
  int fd_ = -1;
};

inline void FileDescriptor::reset() {
  if (fd_ < 0) return;
  const int saved_errno = errno;
  close(fd_);
  errno = saved_errno;
  fd_ = -1;
}
