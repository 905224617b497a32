#include "tests/io/network_cookie.h"

#include <sys/socket.h>

std::optional<uint64_t> network_cookie(int fd) {
  uint64_t cookie = 0;
  socklen_t size = sizeof(cookie);
  if (getsockopt(fd, SOL_SOCKET, SO_NETNS_COOKIE, &cookie, &size) != 0) return std::nullopt;
  return cookie;
}
