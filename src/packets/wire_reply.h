// Echo replies as they come over the wire, from the IP header on, before the kernel has looked at
// them: what it would refuse is refused here.
#pragma once

#include <netinet/in.h>

#include <cstdint>
#include <optional>
#include <span>

template <class Address>
struct WireReply {
  // As a raw ICMP socket delivers it, without what follows the IP packet on the wire. IPv4: the
  // last 20 bytes of the IP header (the whole of it, unless it has options), then the message.
  // IPv6: the message alone.
  std::span<const uint8_t> packet;
  Address sender{};  // network byte order
};

// An intact and whole ICMP echo reply (RFC 792) in an IPv4 packet (RFC 791): version, lengths and
// both checksums are right. Bytes behind the packet, which Ethernet adds to short ones, are no part
// of it.
std::optional<WireReply<in_addr>> parse_wire_reply4(std::span<const uint8_t> bytes);

// An intact ICMPv6 echo reply (RFC 4443 section 4.2) that directly follows its IPv6 header.
std::optional<WireReply<in6_addr>> parse_wire_reply6(std::span<const uint8_t> bytes);
