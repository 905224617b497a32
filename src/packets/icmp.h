// The ICMP and ICMPv6 message types that this daemon sends or reads (RFC 792, RFC 4443, RFC 4861).
#pragma once

#include <cstdint>

inline constexpr uint8_t kIcmpEchoReply = 0;
inline constexpr uint8_t kIcmpEchoRequest = 8;
inline constexpr uint8_t kIcmp6EchoRequest = 128;
inline constexpr uint8_t kIcmp6EchoReply = 129;
