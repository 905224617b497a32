// One line of the configuration file, as the reader hands it to the section that it stands in.
#pragma once

#include <array>
#include <cstdint>
#include <string>

#include "config/tokens.h"

// The deepest block; depth 0 is outside of all blocks.
inline constexpr int kMaxBlockDepth = 31;

// For each depth, the keyword of the line that was read last there: blocks[0] is the section,
// blocks[1] the block inside the section.
using BlockStack = std::array<std::string, kMaxBlockDepth + 1>;

struct ConfigLine {
  const BlockStack& blocks;
  int depth;         // after all brackets of the line; may be out of range by then
  bool opens_block;  // the line has an opening bracket
  std::string key;   // both may be empty
  std::string value;
  int line_number = 0;  // in the file, from 1

  const std::string& section() const { return blocks[0]; }
  const std::string& block() const { return blocks[1]; }

  // The value as a number, without a range check.
  uint32_t number() const { return parse_unsigned(value); }
  int32_t signed_number() const { return static_cast<int32_t>(number()); }
};
