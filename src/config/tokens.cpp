#include "config/tokens.h"

#include <cstdint>
#include <limits>

std::vector<std::string> split_tokens(std::string_view line, char delimiter) {
  constexpr char kSeparator = '~';
  std::string text;
  text.reserve(line.size());
  bool newline_dropped = false;
  for (const char character : line) {
    if (character == '\n' && !newline_dropped) {
      newline_dropped = true;
      continue;
    }
    if (character == '\t') {
      text.append(4, delimiter == ' ' ? kSeparator : ' ');
    } else {
      text += character == delimiter ? kSeparator : character;
    }
  }

  std::vector<std::string> tokens;
  size_t start = text.find_first_not_of(kSeparator);
  while (start != std::string::npos) {
    const size_t end = text.find(kSeparator, start);
    tokens.push_back(text.substr(start, end - start));
    start = text.find_first_not_of(kSeparator, end);
  }
  return tokens;
}

std::string token_at(const std::vector<std::string>& tokens, size_t index) {
  return index < tokens.size() ? tokens[index] : std::string();
}

unsigned int parse_unsigned(std::string_view text) {
  constexpr uint32_t kMax = std::numeric_limits<uint32_t>::max();
  constexpr std::string_view kBlanks = " \t\n\v\f\r";
  size_t position = text.find_first_not_of(kBlanks);
  if (position == std::string_view::npos) return 0;
  const bool negative = text[position] == '-';
  if (negative || text[position] == '+') ++position;
  uint64_t number = 0;
  for (; position < text.size() && text[position] >= '0' && text[position] <= '9'; ++position) {
    number = number * 10 + static_cast<uint64_t>(text[position] - '0');
    if (number > kMax) return kMax;
  }
  const auto result = static_cast<uint32_t>(number);
  return negative ? 0U - result : result;
}
