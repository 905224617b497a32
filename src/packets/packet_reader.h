// A bounds-checked view of received bytes: it never reads past what arrived.
#pragma once

#include <cstdint>
#include <cstring>
#include <optional>
#include <span>
#include <type_traits>

class PacketReader {
 public:
  explicit PacketReader(std::span<const uint8_t> bytes) : bytes_(bytes) {}

  // The record of type T at `offset`, or nothing when the bytes end before it does.
  template <class T>
  std::optional<T> at(size_t offset) const {
    static_assert(std::is_trivially_copyable_v<T>);
    if (offset > bytes_.size() || bytes_.size() - offset < sizeof(T)) return std::nullopt;
    T value;
    std::memcpy(&value, bytes_.data() + offset, sizeof(T));
    return value;
  }

 private:
  std::span<const uint8_t> bytes_;
};

// The bytes of a packed record, for sending and summing.
template <class T>
std::span<const uint8_t> bytes_of(const T& record) {
  static_assert(std::is_trivially_copyable_v<T>);
  return {reinterpret_cast<const uint8_t*>(&record), sizeof(T)};
}
