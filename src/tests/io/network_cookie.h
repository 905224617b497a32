// Which network namespace a socket is in.
#pragma once

#include <cstdint>
#include <optional>

// A number that no other namespace has had since the system was started (SO_NETNS_COOKIE,
// socket(7)). Nothing where the kernel cannot tell (before Linux 5.14).
std::optional<uint64_t> network_cookie(int fd);
