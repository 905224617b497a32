// Packet fields as byte arrays: unaligned, in network byte order on every host.
#pragma once

#include <array>
#include <cstdint>

// A 16-bit field in network byte order.
class Be16 {
 public:
  constexpr Be16() = default;
  constexpr Be16(uint16_t value)  // NOLINT(google-explicit-constructor): reads as the number
      : bytes_{static_cast<uint8_t>(value >> 8), static_cast<uint8_t>(value)} {}
  constexpr operator uint16_t() const {  // NOLINT(google-explicit-constructor)
    return static_cast<uint16_t>(bytes_[0] << 8 | bytes_[1]);
  }

 private:
  std::array<uint8_t, 2> bytes_{};
} __attribute__((packed));

// A 32-bit field in network byte order.
class Be32 {
 public:
  constexpr Be32() = default;
  constexpr Be32(uint32_t value)  // NOLINT(google-explicit-constructor)
      : bytes_{static_cast<uint8_t>(value >> 24), static_cast<uint8_t>(value >> 16),
               static_cast<uint8_t>(value >> 8), static_cast<uint8_t>(value)} {}
  constexpr operator uint32_t() const {  // NOLINT(google-explicit-constructor)
    return static_cast<uint32_t>(bytes_[0]) << 24 | static_cast<uint32_t>(bytes_[1]) << 16 |
           static_cast<uint32_t>(bytes_[2]) << 8 | bytes_[3];
  }

 private:
  std::array<uint8_t, 4> bytes_{};
} __attribute__((packed));

static_assert(sizeof(Be16) == 2 && alignof(Be16) == 1);
static_assert(sizeof(Be32) == 4 && alignof(Be32) == 1);
