#include "config/tokens.h"

#include <cstdlib>

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
  return static_cast<unsigned int>(std::strtoul(std::string(text).c_str(), nullptr, 10));
}
