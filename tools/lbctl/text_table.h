// Lines of coloured parts, and cells that keep their width whatever is in them.
#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "lbctl/print.h"

namespace lbctl {

struct TextPart {
  std::string text;  // plain ASCII: a column is a byte
  std::optional<Colour> colour;
};

struct TextLine {
  std::vector<TextPart> parts;
  // What a live view marks when it changes: whom the line is about, and what counts of it. Empty:
  // nothing does.
  std::string subject;
  std::string content;

  std::string text() const;

  // Drops what is beyond the width.
  void clip(size_t width);
};

// The text as plain ASCII that steers no terminal: a '?' for every other character.
std::string plain(std::string_view text);

// Cut in the middle, since names often differ at their ends only: "provid~link-2".
std::string cut(const std::string& text, size_t width);

// Cut or filled with blanks to exactly `width`.
std::string cell(const std::string& text, size_t width);

// One text for standard output, each line with its newline and no blanks at its end.
std::string joined(const std::vector<TextLine>& lines, bool colours);

}  // namespace lbctl
