// ICMP and ICMPv6 messages in IP packets with right checksums, by a computation of the tests' own.
#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

// What has to be in a checksum field for the digits, two bytes each, to add up to nothing modulo
// 65535 (RFC 1071). An odd byte at the end is the upper half of a word.
inline uint16_t missing_to_zero(const std::vector<uint8_t>& bytes) {
  uint64_t sum = 0;
  for (size_t i = 0; i < bytes.size(); ++i) sum += bytes[i] * (i % 2 == 0 ? 256u : 1u);
  return static_cast<uint16_t>(65535 - sum % 65535);
}

// Puts right checksums into an IP packet with an ICMP or ICMPv6 message, as far as it has the room:
// the header is taken to be as long as it says, the message to reach to the packet's end.
inline void seal(std::vector<uint8_t>& packet) {
  const auto put = [&](size_t offset, std::vector<uint8_t> summed) {
    if (packet.size() < offset + 2) return;
    const uint16_t sum = missing_to_zero(summed);
    packet[offset] = static_cast<uint8_t>(sum >> 8);
    packet[offset + 1] = static_cast<uint8_t>(sum & 0xff);
  };
  const auto clear = [&](size_t offset) {
    if (packet.size() >= offset + 2) packet[offset] = packet[offset + 1] = 0;
  };
  if (packet.size() > 40 && packet[0] >> 4 != 4) {
    clear(42);
    const auto length = static_cast<uint8_t>(packet.size() - 40);
    std::vector<uint8_t> summed(packet.begin() + 8, packet.end());
    summed.insert(summed.begin(), {0, length, 0, 58});
    put(42, summed);
    return;
  }
  const size_t header = (packet[0] & 0xf) * size_t{4};
  if (header > packet.size()) return;
  clear(10);
  put(10, {packet.begin(), packet.begin() + static_cast<std::ptrdiff_t>(header)});
  clear(header + 2);
  put(header + 2, {packet.begin() + static_cast<std::ptrdiff_t>(header), packet.end()});
}
