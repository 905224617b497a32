// The two IP versions: what differs between them in numbers and words.
//
// `Family` is a value for all that is the same code for both. The types Ipv4 and Ipv6 are for the
// few places where the address itself is handled, and so its type differs.
#pragma once

#include <netinet/in.h>

#include <cstdint>
#include <string>

#include "packets/ethernet.h"
#include "packets/icmp.h"
#include "packets/ip_headers.h"

struct Family {
  bool ipv6;
  int version;
  int address_family;  // AF_INET, AF_INET6
  uint16_t ether_type;
  uint8_t icmp_protocol;
  uint8_t echo_request;     // ICMP type
  const char* name;         // in messages
  const char* packet_name;  // the family's ICMP, in messages
};

inline constexpr Family kIpv4{.ipv6 = false,
                              .version = 4,
                              .address_family = AF_INET,
                              .ether_type = kEtherTypeIpv4,
                              .icmp_protocol = kProtocolIcmp,
                              .echo_request = kIcmpEchoRequest,
                              .name = "ipv4",
                              .packet_name = "icmp"};

inline constexpr Family kIpv6{.ipv6 = true,
                              .version = 6,
                              .address_family = AF_INET6,
                              .ether_type = kEtherTypeIpv6,
                              .icmp_protocol = kProtocolIcmpv6,
                              .echo_request = kIcmp6EchoRequest,
                              .name = "ipv6",
                              .packet_name = "icmp6"};

constexpr const Family& family_of(bool ipv6) { return ipv6 ? kIpv6 : kIpv4; }

struct Ipv4 {
  using Address = in_addr;
  static constexpr const Family& kFamily = kIpv4;
};

struct Ipv6 {
  using Address = in6_addr;
  static constexpr const Family& kFamily = kIpv6;
};

// The canonical text of an address of `address_family`; empty when it cannot be formatted (errno is
// set).
std::string address_to_text(int address_family, const void* address);

// Parses the text form of an address into `address` (in_addr or in6_addr, network byte order).
// The result is inet_pton's: 1, or 0 for a text that is no address.
int address_from_text(int address_family, const std::string& text, void* address);
