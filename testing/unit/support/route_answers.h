// Messages that the kernel's route netlink sends, for tests.
#pragma once

#include <linux/neighbour.h>
#include <linux/netlink.h>
#include <linux/rtnetlink.h>

#include <cstdint>
#include <cstring>
#include <optional>
#include <span>
#include <string>

#include "packets/ethernet.h"
#include "support/packet_bytes.h"

// Writes a field in host byte order.
template <class T>
void set(Bytes& bytes, size_t offset, T value) {
  std::memcpy(bytes.data() + offset, &value, sizeof(value));
}

inline Bytes address_bytes(const std::string& text) { return to_bytes(ipv6_address(text)); }

// A message of `size` bytes of which only the header is filled in.
inline Bytes netlink_message(uint16_t type, uint32_t size) {
  Bytes bytes(size);
  set(bytes, 0, size);  // length
  set(bytes, 4, type);
  return bytes;
}

inline Bytes done() { return netlink_message(NLMSG_DONE, 20); }

// An acknowledgement (0) or a refusal (a negative errno value): the code, then the request's
// header.
inline Bytes error_message(int32_t code) {
  Bytes bytes = netlink_message(NLMSG_ERROR, 36);
  set(bytes, 16, code);
  return bytes;
}

inline Bytes empty_entry(uint16_t state) {
  Bytes bytes = netlink_message(RTM_NEWNEIGH, 28);
  bytes[16] = AF_INET6;        // family
  set(bytes, 20, int32_t{7});  // interface index
  set(bytes, 24, state);
  return bytes;
}

// Appends an attribute to a message that is alone in `bytes`.
inline void add_attribute(Bytes& bytes, uint16_t type, std::span<const uint8_t> data) {
  const size_t start = bytes.size();
  bytes.resize(start + 4 + (data.size() + 3) / 4 * 4);
  set(bytes, start, static_cast<uint16_t>(4 + data.size()));
  set(bytes, start + 2, type);
  std::copy(data.begin(), data.end(), bytes.begin() + static_cast<ptrdiff_t>(start) + 4);
  set(bytes, 0, static_cast<uint32_t>(bytes.size()));
}

// A neighbour entry: address at 28, link-layer address at 48 of 60 bytes.
inline Bytes entry(const std::string& address, const std::optional<MacAddress>& mac,
                   uint16_t state = NUD_REACHABLE) {
  Bytes bytes = empty_entry(state);
  add_attribute(bytes, NDA_DST, address_bytes(address));
  if (mac) add_attribute(bytes, NDA_LLADDR, *mac);
  return bytes;
}
