// The records of the dump files as a reader of bytes sees them.
#pragma once

#include <gtest/gtest.h>

#include <cstdint>
#include <cstring>
#include <string>
#include <vector>

// A record whose fields are asked for by their offsets; what was asked for is cleared.
class RecordBytes {
 public:
  template <typename Record>
  explicit RecordBytes(const Record& record)
      : bytes_(reinterpret_cast<const char*>(&record),
               reinterpret_cast<const char*>(&record) + sizeof(record)) {}

  // The text of a field, the rest of which has to be zero.
  std::string text(size_t offset, size_t size) {
    const std::string field(&bytes_.at(offset), size);
    const std::string text = field.c_str();
    EXPECT_LT(text.size(), size) << "no NUL byte at the end";
    EXPECT_EQ(field.substr(text.size()), std::string(size - text.size(), '\0'));
    clear(offset, size);
    return text;
  }
  int32_t number(size_t offset) {
    int32_t value = 0;
    memcpy(&value, &bytes_.at(offset), sizeof(value));
    clear(offset, sizeof(value));
    return value;
  }
  int byte(size_t offset) {
    const int value = static_cast<unsigned char>(bytes_.at(offset));
    clear(offset, 1);
    return value;
  }
  bool rest_is_zero() const { return bytes_ == std::vector<char>(bytes_.size(), '\0'); }

 private:
  void clear(size_t offset, size_t size) { memset(&bytes_.at(offset), 0, size); }

  std::vector<char> bytes_;
};
