// ARP over Ethernet (RFC 826): the request that is sent and the reply that is read.
#pragma once

#include <netinet/in.h>

#include <array>
#include <cstdint>
#include <optional>
#include <span>

#include "packets/byte_order.h"
#include "packets/ethernet.h"

inline constexpr uint16_t kArpRequest = 1;
inline constexpr uint16_t kArpReply = 2;

//  0                   1                   2                   3
//  0 1 2 3 4 5 6 7 8 9 0 1 2 3 4 5 6 7 8 9 0 1 2 3 4 5 6 7 8 9 0 1
// +-------------------------------+-------------------------------+
// |         Hardware type         |         Protocol type         |
// +---------------+---------------+-------------------------------+
// |Hardware length|Protocol length|           Operation           |
// +---------------+---------------+-------------------------------+
// |               Sender hardware address (6 bytes)               |
// |                               +-------------------------------+
// |                               |    Sender protocol address    |
// +-------------------------------+-------------------------------+
// |      (its second half)        |    Target hardware address    |
// +-------------------------------+          (6 bytes)            |
// |                                                               |
// +---------------------------------------------------------------+
// |                    Target protocol address                    |
// +---------------------------------------------------------------+
struct ArpFrame {
  EthernetHeader ethernet;
  Be16 hardware_type = 1;  // Ethernet
  Be16 protocol_type = kEtherTypeIpv4;
  uint8_t hardware_length = 6;
  uint8_t protocol_length = 4;
  Be16 operation = kArpRequest;
  MacAddress sender_mac{};
  in_addr sender{};
  MacAddress target_mac{};
  in_addr target{};
} __attribute__((packed));

static_assert(sizeof(ArpFrame) == 42);

// What a reply says; the address in network byte order.
struct ArpReply {
  in_addr sender{};
  // The sender's hardware address, then the eight bytes that follow it in the frame: all that the
  // kernel's request has room for.
  std::array<uint8_t, 14> hardware{};
};

// A broadcast request for `target`; addresses in network byte order.
ArpFrame make_arp_request(const MacAddress& source_mac, in_addr source, in_addr target);

// Reads a received frame; nothing unless it is a whole ARP reply of a station.
std::optional<ArpReply> parse_arp_reply(std::span<const uint8_t> frame);
