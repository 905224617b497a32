// The lines of a configuration file as the daemon's reader takes them, with the places of all
// words.
//
// The reader takes at most 1,023 characters at once, ends a piece at a NUL byte and at "#", takes
// blanks, tabs and "~" for separators, and knows nothing of quotes when it looks for words.
#pragma once

#include <string>
#include <string_view>
#include <vector>

#include "lbctl/check_findings.h"

namespace lbctl {

struct Word {
  Place place;
  std::string text;
  bool in_quotes = false;  // begins behind the line's first quote and ends before its last one

  bool is_brace() const { return text == "{" || text == "}"; }
};

// What the reader takes at once: a line, or a part of a long one.
struct ReadLine {
  Place place;
  std::string text;         // without the comment and what a NUL byte hides
  std::vector<Word> words;  // separated as the reader does it
  std::string comment;      // from its "#" on
  bool continues = false;   // the rest of a line that was too long
  bool in_comment =
      false;  // that rest stands in the line's comment, of which the reader is unaware
  bool hides_text = false;  // something stands behind a NUL byte

  Place place_of(size_t offset) const {
    return {place.line, place.column + static_cast<int>(offset)};
  }
};

// The text's lines in order. A byte-order mark at the start and carriage returns at the ends of
// lines are left out, as if they were not there.
std::vector<ReadLine> read_lines(std::string_view text);

// Tells what the reader makes of the bytes: marks, carriage returns, NUL bytes, long lines, braces
// behind "#" and quotes.
void check_bytes(std::string_view text, const std::vector<ReadLine>& lines, Findings& findings);

}  // namespace lbctl
