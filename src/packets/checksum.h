// The Internet checksum (RFC 1071).
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>

// The sum of `bytes` as 16-bit words in network byte order, added to `sum` and not yet folded, so
// that a pseudo-header and a message can be summed in turn. A last odd byte counts as it stands, as
// the low-order byte; every message of this daemon is of even length.
uint32_t checksum_words(std::span<const uint8_t> bytes, uint32_t sum = 0);

// Folds the carries of a sum and complements it: the value of a checksum field.
uint16_t checksum_fold(uint32_t sum);

// True when the bytes, among which is their own checksum, are as they were sent, after a
// pseudo-header that adds up to `sum`. An odd byte at the end counts as if a zero followed it.
bool is_intact(std::span<const uint8_t> bytes, uint32_t sum = 0);

// The checksum of `bytes`, whose own checksum field is 0.
uint16_t inet_checksum(std::span<const uint8_t> bytes);
