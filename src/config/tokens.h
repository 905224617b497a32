// Splitting of configuration and lease file lines.
#pragma once

#include <string>
#include <string_view>
#include <vector>

// The non-empty pieces of `line` between separators, in order. Every `delimiter` and every "~"
// separates; tabs become four blanks first and the first newline is dropped.
std::vector<std::string> split_tokens(std::string_view line, char delimiter);

// Token `index`, or the empty text past the end.
std::string token_at(const std::vector<std::string>& tokens, size_t index);

// Reads a number as strtoul does with base 10, and keeps its low 32 bits: leading blanks and a sign
// are allowed, the conversion stops at the first character that is no digit, no digits give 0, and
// a number that does not fit into the host's long gives 4294967295.
unsigned int parse_unsigned(std::string_view text);
