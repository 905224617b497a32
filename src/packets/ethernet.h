// Ethernet II header (RFC 894, RFC 2464).
#pragma once

#include <array>
#include <cstdint>

#include "packets/byte_order.h"

using MacAddress = std::array<uint8_t, 6>;

// True for an address that one station can have: neither all zero nor that of a group.
constexpr bool is_station_address(const MacAddress& mac) {
  return (mac[0] & 1) == 0 && mac != MacAddress{};
}

inline constexpr uint16_t kEtherTypeIpv4 = 0x0800;
inline constexpr uint16_t kEtherTypeArp = 0x0806;
inline constexpr uint16_t kEtherTypeIpv6 = 0x86DD;

//  0                   1
//  0 1 2 3 4 5 6 7 8 9 0 1 2 3   (bytes)
// +-----------+-----------+---+
// |destination|  source   |typ|
// +-----------+-----------+---+
struct EthernetHeader {
  MacAddress destination{};
  MacAddress source{};
  Be16 type;
} __attribute__((packed));

static_assert(sizeof(EthernetHeader) == 14);
