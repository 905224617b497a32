// Neighbour discovery (RFC 4861 sections 4.3 and 4.4): the solicitation that is sent and the
// advertisement that is read.
#pragma once

#include <netinet/in.h>

#include <cstdint>
#include <optional>
#include <span>

#include "packets/byte_order.h"
#include "packets/ethernet.h"
#include "packets/ip_headers.h"

inline constexpr uint8_t kNeighborSolicitation = 135;
inline constexpr uint8_t kNeighborAdvertisement = 136;

// What a sender on the link sets and no router passes on (RFC 4861 section 7.1.2).
inline constexpr uint8_t kNeighborHopLimit = 255;

inline constexpr uint8_t kSourceLinkAddressOption = 1;
inline constexpr uint8_t kTargetLinkAddressOption = 2;

// A solicitation or an advertisement with one link-layer address option.
//
//  0                   1                   2                   3
//  0 1 2 3 4 5 6 7 8 9 0 1 2 3 4 5 6 7 8 9 0 1 2 3 4 5 6 7 8 9 0 1
// +---------------+---------------+-------------------------------+
// |      Type     |      Code     |            Checksum           |
// +---------------+---------------+-------------------------------+
// |                  Reserved (two 16-bit fields)                 |
// +---------------------------------------------------------------+
// |                   Target address (16 bytes)                   |
// +---------------+---------------+-------------------------------+
// |  Option type  | Option length |  Link-layer address (6 bytes) |
// +---------------+---------------+                               |
// |                                                               |
// +---------------------------------------------------------------+
struct NeighborMessage {
  uint8_t type = kNeighborSolicitation;
  uint8_t code = 0;
  Be16 checksum;
  Be16 reserved = 1000;  // receivers must ignore it (RFC 4861); marks our solicitations
  Be16 reserved_low = 0;
  in6_addr target{};
  uint8_t option_type = kSourceLinkAddressOption;
  uint8_t option_length = 1;  // in units of 8 bytes
  MacAddress link_address{};
} __attribute__((packed));

static_assert(sizeof(NeighborMessage) == 32);

struct NeighborFrame {
  EthernetHeader ethernet;
  Ipv6Header ip;
  NeighborMessage message;
} __attribute__((packed));

static_assert(sizeof(NeighborFrame) == 86);

// What an advertisement says; the address in network byte order.
struct NeighborAdvertisement {
  in6_addr target{};
  MacAddress mac{};
};

// The solicited-node multicast address of `target` (RFC 4291 section 2.7.1) under `prefix`.
in6_addr solicited_node_address(const in6_addr& prefix, const in6_addr& target);

// A solicitation for `target` to its solicited-node address `destination`, with its checksum.
NeighborFrame make_solicitation(const MacAddress& source_mac, const in6_addr& source,
                                const in6_addr& destination, const in6_addr& target);

// Reads a received frame; nothing unless it is an advertisement from the link, directly after the
// IPv6 header, whose first option is the target's link-layer address, that of a station.
std::optional<NeighborAdvertisement> parse_neighbor_advertisement(std::span<const uint8_t> frame);
