// A socket address of either family.
#pragma once

#include <netinet/in.h>
#include <sys/socket.h>

#include <cstring>

struct SocketAddress {
  union {
    sockaddr any;
    sockaddr_in ipv4;
    sockaddr_in6 ipv6{};
  };
  socklen_t size = 0;
};

// True when both are the same, byte for byte.
inline bool is_same(const SocketAddress& a, const SocketAddress& b) {
  return a.size == b.size && std::memcmp(&a.ipv6, &b.ipv6, a.size) == 0;
}
