// The IPv4 header (RFC 791) and the IPv6 header (RFC 8200), as the probes write them.
#pragma once

#include <netinet/in.h>

#include <cstdint>

#include "packets/byte_order.h"

inline constexpr uint8_t kProtocolIcmp = 1;
inline constexpr uint8_t kProtocolIcmpv6 = 58;

//  0                   1                   2                   3
//  0 1 2 3 4 5 6 7 8 9 0 1 2 3 4 5 6 7 8 9 0 1 2 3 4 5 6 7 8 9 0 1
// +-------+-------+---------------+-------------------------------+
// |Version|  IHL  |Type of service|          Total length         |
// +-------+-------+---------------+-----+-------------------------+
// |         Identification        |Flags|     Fragment offset     |
// +---------------+---------------+-----+-------------------------+
// |  Time to live |    Protocol   |        Header checksum        |
// +---------------+---------------+-------------------------------+
// |                         Source address                        |
// +---------------------------------------------------------------+
// |                      Destination address                      |
// +---------------------------------------------------------------+
struct Ipv4Header {
  uint8_t version_ihl = 0x45;
  uint8_t type_of_service = 0;
  Be16 total_length;
  Be16 identification;
  Be16 flags_fragment;
  uint8_t time_to_live = 255;
  uint8_t protocol = 0;
  Be16 checksum;
  in_addr source{};
  in_addr destination{};
} __attribute__((packed));

static_assert(sizeof(Ipv4Header) == 20);

// In flags_fragment of a part of a packet: more of them follow, or an offset.
inline constexpr uint16_t kIpv4Fragment = 0x3fff;

//  0                   1                   2                   3
//  0 1 2 3 4 5 6 7 8 9 0 1 2 3 4 5 6 7 8 9 0 1 2 3 4 5 6 7 8 9 0 1
// +-------+---------------+---------------------------------------+
// |Version| Traffic class |               Flow label              |
// +-------+---------------+-------+---------------+---------------+
// |         Payload length        |  Next header  |   Hop limit   |
// +-------------------------------+---------------+---------------+
// |                    Source address (16 bytes)                  |
// +---------------------------------------------------------------+
// |                 Destination address (16 bytes)                |
// +---------------------------------------------------------------+
struct Ipv6Header {
  Be32 version_class_flow = 0x60000000;
  Be16 payload_length;
  uint8_t next_header = 0;
  uint8_t hop_limit = 255;
  in6_addr source{};
  in6_addr destination{};
} __attribute__((packed));

static_assert(sizeof(Ipv6Header) == 40);

// The words of the IPv6 pseudo-header of an ICMPv6 message of `length` bytes, summed as
// checksum_words does.
uint32_t icmp6_pseudo_header_words(const in6_addr& source, const in6_addr& destination,
                                   uint32_t length);

// The checksum of an ICMPv6 message whose checksum field is 0: the message after the IPv6
// pseudo-header (RFC 8200 section 8.1, RFC 4443 section 2.3).
uint16_t icmp6_checksum(const in6_addr& source, const in6_addr& destination, const uint8_t* message,
                        uint32_t length);
