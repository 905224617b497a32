// Packets spelled out byte for byte, and what tests do to them.
#pragma once

#include <arpa/inet.h>
#include <gtest/gtest.h>

#include <cstdint>
#include <string>
#include <vector>

#include "packets/packet_reader.h"

using Bytes = std::vector<uint8_t>;

template <class Record>
Bytes to_bytes(const Record& record) {
  const auto bytes = bytes_of(record);
  return {bytes.begin(), bytes.end()};
}

inline void append(Bytes& bytes, const Bytes& more) {
  bytes.insert(bytes.end(), more.begin(), more.end());
}

inline in6_addr ipv6_address(const std::string& text) {
  in6_addr address{};
  EXPECT_EQ(inet_pton(AF_INET6, text.c_str(), &address), 1) << text;
  return address;
}

// Calls `check` with every beginning of `whole` but all of it. Each is a copy of its own, so that
// AddressSanitizer finds a read beyond its end.
template <class Check>
void for_each_truncation(const Bytes& whole, const Check& check) {
  for (size_t size = 0; size < whole.size(); ++size) {
    SCOPED_TRACE("size " + std::to_string(size));
    check(Bytes(whole.begin(), whole.begin() + static_cast<ptrdiff_t>(size)));
  }
}

// Calls `check` with copies of `whole` of which one bit is flipped, and the number of that bit.
template <class Check>
void for_each_flipped_bit(const Bytes& whole, const Check& check) {
  for (size_t bit = 0; bit < whole.size() * 8; ++bit) {
    SCOPED_TRACE("bit " + std::to_string(bit));
    Bytes flipped = whole;
    flipped[bit / 8] ^= static_cast<uint8_t>(1U << bit % 8);
    check(flipped, bit);
  }
}

// A neighbour advertisement, 86 bytes, that speaks for its target.
inline Bytes advertisement_frame() {
  return {
      0x02, 0x11, 0x22, 0x33, 0x44, 0x55,        // Ethernet destination
      0x06, 0xaa, 0xbb, 0xcc, 0xdd, 0xee,        // Ethernet source
      0x86, 0xdd,                                // EtherType: IPv6
      0x60, 0x00, 0x00, 0x00,                    // version, traffic class, flow label
      0x00, 0x20,                                // payload length 32
      0x3a,                                      // next header: ICMPv6
      0xff,                                      // hop limit
      0xfe, 0x80, 0,    0,    0,    0,    0, 0,  // source fe80::1
      0,    0,    0,    0,    0,    0,    0, 1,  //
      0xfe, 0x80, 0,    0,    0,    0,    0, 0,  // destination fe80::2
      0,    0,    0,    0,    0,    0,    0, 2,  //
      0x88,                                      // type: neighbour advertisement
      0x00,                                      // code
      0x12, 0x34,                                // checksum (not looked at)
      0x60, 0x00, 0x00, 0x00,                    // flags: solicited, override
      0x20, 0x01, 0x0d, 0xb8, 0,    0,    0, 0,  // target 2001:db8::1:2:3
      0,    0,    0,    1,    0,    2,    0, 3,  //
      0x02,                                      // option: target link-layer address
      0x01,                                      // option length
      0x06, 0xaa, 0xbb, 0xcc, 0xdd, 0xef,        // link-layer address
  };
}
