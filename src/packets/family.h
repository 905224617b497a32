// The two IP versions as types, for everything that is written once and exists twice.
#pragma once

#include <arpa/inet.h>
#include <netinet/in.h>

#include <string>

struct Ipv4 {
  using Address = in_addr;
  static constexpr bool kIpv6 = false;
  static constexpr int kFamily = AF_INET;
  static constexpr int kVersion = 4;
  static constexpr const char* kName = "ipv4";
};

struct Ipv6 {
  using Address = in6_addr;
  static constexpr bool kIpv6 = true;
  static constexpr int kFamily = AF_INET6;
  static constexpr int kVersion = 6;
  static constexpr const char* kName = "ipv6";
};

// The canonical text of an address; empty when it cannot be formatted (errno is set).
std::string address_to_text(int family, const void* address);

// Parses the text form of an address into `address` (in_addr or in6_addr, network byte order).
// The result is inet_pton's: 1, or 0 for a text that is no address.
int address_from_text(int family, const std::string& text, void* address);
