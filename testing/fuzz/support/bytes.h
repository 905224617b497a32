// Input bytes as the targets use them.
#pragma once

#include <cstdint>
#include <cstring>
#include <memory>
#include <span>
#include <string_view>
#include <type_traits>
#include <vector>

using Bytes = std::vector<uint8_t>;

// A copy of the bytes that ends where its memory does, so that a read past the end is noticed, and
// starts at an odd address.
class ExactCopy {
 public:
  explicit ExactCopy(std::span<const uint8_t> bytes)
      : memory_(new uint8_t[bytes.size() + 1]), size_(bytes.size()) {
    if (size_ != 0) std::memcpy(memory_.get() + 1, bytes.data(), size_);
  }

  std::span<const uint8_t> bytes() const { return {memory_.get() + 1, size_}; }
  std::string_view text() const {
    return {reinterpret_cast<const char*>(memory_.get() + 1), size_};
  }

 private:
  std::unique_ptr<uint8_t[]> memory_;
  size_t size_;
};

// Takes a value from the front of `bytes`; what the bytes do not give is 0.
template <class T>
T take(std::span<const uint8_t>& bytes) {
  static_assert(std::is_trivially_copyable_v<T>);
  T value{};
  const size_t size = bytes.size() < sizeof(T) ? bytes.size() : sizeof(T);
  if (size != 0) std::memcpy(&value, bytes.data(), size);
  bytes = bytes.subspan(size);
  return value;
}

// Two and four bytes at `offset` as a number in network byte order.
inline uint16_t number16_at(std::span<const uint8_t> bytes, size_t offset) {
  return static_cast<uint16_t>(bytes[offset] * 256 + bytes[offset + 1]);
}
inline uint32_t number32_at(std::span<const uint8_t> bytes, size_t offset) {
  return number16_at(bytes, offset) * 65536u + number16_at(bytes, offset + 2);
}

// True when the bytes at `offset` are those of `value`.
template <class T>
bool is_at(std::span<const uint8_t> bytes, size_t offset, const T& value) {
  static_assert(std::is_trivially_copyable_v<T>);
  return std::memcmp(bytes.data() + offset, &value, sizeof(T)) == 0;
}

// True when the six bytes at `offset` are a link-layer address that one station can have.
inline bool is_station_at(std::span<const uint8_t> bytes, size_t offset) {
  const bool is_group = bytes[offset] % 2 == 1;
  const bool is_zero = number16_at(bytes, offset) == 0 && number32_at(bytes, offset + 2) == 0;
  return !is_group && !is_zero;
}

// Appends the bytes of `value`.
template <class T>
void append(Bytes& bytes, const T& value) {
  static_assert(std::is_trivially_copyable_v<T>);
  const auto* first = reinterpret_cast<const uint8_t*>(&value);
  bytes.insert(bytes.end(), first, first + sizeof(T));
}

// True when a message that carries its own checksum, summed after `sum`, is intact: the 16-bit
// words add up to all ones (RFC 1071).
inline bool is_sum_right(std::span<const uint8_t> message, uint64_t sum = 0) {
  for (size_t i = 0; i + 1 < message.size(); i += 2) sum += number16_at(message, i);
  return sum != 0 && sum % 65535 == 0;
}
