#include "packets/checksum.h"

uint32_t checksum_words(std::span<const uint8_t> bytes, uint32_t sum) {
  size_t i = 0;
  for (; i + 1 < bytes.size(); i += 2) {
    sum += static_cast<uint32_t>(bytes[i]) << 8 | bytes[i + 1];
  }
  if (i < bytes.size()) sum += bytes[i];
  return sum;
}

uint16_t checksum_fold(uint32_t sum) {
  while (sum >> 16 != 0) sum = (sum & 0xffff) + (sum >> 16);
  return static_cast<uint16_t>(~sum);
}

uint16_t inet_checksum(std::span<const uint8_t> bytes) {
  return checksum_fold(checksum_words(bytes));
}

bool is_intact(std::span<const uint8_t> bytes, uint32_t sum) {
  if (bytes.size() % 2 != 0) {
    sum += static_cast<uint32_t>(bytes.back()) << 8;
    bytes = bytes.first(bytes.size() - 1);
  }
  return checksum_fold(checksum_words(bytes, sum)) == 0;
}
