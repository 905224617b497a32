// Words for whoever watches the daemon's standard error.
#pragma once

#include <poll.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <string>

// Prints the text, or loses it where nobody reads: a pipe or socket that is full must hold up no
// worker. Keeps errno. Any thread.
inline void print_on_standard_error(const std::string& text) {
  const int error = errno;
  pollfd waiting{STDERR_FILENO, POLLOUT, 0};
  if (poll(&waiting, 1, 0) == 1 && (waiting.revents & POLLOUT) != 0) {
    std::fputs(text.c_str(), stderr);
  }
  errno = error;
}
