// Messages of the dumps that the kernel answers with, for tests.
#pragma once

#include <linux/if_addr.h>
#include <linux/rtnetlink.h>

#include <string>

#include "support/route_answers.h"

// A route of the family that leads everywhere: main table, unicast, protocol "dhcp", no attributes.
inline Bytes bare_route(bool ipv6) {
  Bytes bytes = netlink_message(RTM_NEWROUTE, 28);
  bytes[16] = ipv6 ? AF_INET6 : AF_INET;  // family
  bytes[20] = RT_TABLE_MAIN;              // table
  bytes[21] = RTPROT_DHCP;                // protocol
  bytes[23] = RTN_UNICAST;                // type
  return bytes;
}

inline Bytes number_bytes(uint32_t number) {
  Bytes bytes(4);
  set(bytes, 0, number);
  return bytes;
}

// in_addr or in6_addr, by the text.
inline Bytes gateway_bytes(const std::string& text) {
  if (text.find(':') != std::string::npos) return address_bytes(text);
  Bytes bytes(4);
  EXPECT_EQ(inet_pton(AF_INET, text.c_str(), bytes.data()), 1) << text;
  return bytes;
}

// As the kernel writes a default route of one next hop.
inline Bytes default_route(const std::string& gateway, uint32_t ifindex, uint32_t metric = 0) {
  Bytes bytes = bare_route(gateway.find(':') != std::string::npos);
  add_attribute(bytes, RTA_TABLE, number_bytes(RT_TABLE_MAIN));
  if (metric != 0) add_attribute(bytes, RTA_PRIORITY, number_bytes(metric));
  add_attribute(bytes, RTA_GATEWAY, gateway_bytes(gateway));
  add_attribute(bytes, RTA_OIF, number_bytes(ifindex));
  return bytes;
}

// The address 2001:db8::7/64 of interface 7 with those flags (IFA_F_*), address alone.
inline Bytes bare_address(uint8_t flags = 0) {
  Bytes bytes = netlink_message(RTM_NEWADDR, 24);
  bytes[16] = AF_INET6;         // family
  bytes[17] = 64;               // prefix length
  bytes[18] = flags;            //
  set(bytes, 20, uint32_t{7});  // interface index
  return bytes;
}

inline Bytes host_address(const std::string& address) {
  Bytes bytes = bare_address();
  add_attribute(bytes, IFA_ADDRESS, address_bytes(address));
  return bytes;
}

// The end of a dump, with flags (NLM_F_*) and a code: 0, or a negative errno value.
inline Bytes dump_end(uint16_t flags = 0, int32_t code = 0) {
  Bytes bytes = done();
  set(bytes, 6, flags);
  set(bytes, 16, code);
  return bytes;
}
