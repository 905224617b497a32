// The echo message types of ICMP (RFC 792) and ICMPv6 (RFC 4443).
#pragma once

#include <cstdint>

inline constexpr uint8_t kIcmpEchoReply = 0;
inline constexpr uint8_t kIcmpEchoRequest = 8;
inline constexpr uint8_t kIcmp6EchoRequest = 128;
inline constexpr uint8_t kIcmp6EchoReply = 129;
