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
