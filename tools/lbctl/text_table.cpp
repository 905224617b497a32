#include "lbctl/text_table.h"

#include <algorithm>

namespace lbctl {

std::string TextLine::text() const {
  std::string whole;
  for (const TextPart& part : parts) whole += part.text;
  return whole;
}

void TextLine::clip(size_t width) {
  for (TextPart& part : parts) {
    part.text.resize(std::min(part.text.size(), width));
    width -= part.text.size();
  }
}

std::string plain(std::string_view text) {
  std::string result;
  for (const char character : text) {
    const auto byte = static_cast<unsigned char>(character);
    if ((byte & 0xC0U) == 0x80U) continue;  // the rest of a UTF-8 character
    result += byte < 0x20 || byte >= 0x7F ? '?' : character;
  }
  return result;
}

std::string cut(const std::string& text, size_t width) {
  if (text.size() <= width) return text;
  if (width == 0) return "";
  const size_t tail = (width - 1) / 2;
  return text.substr(0, width - 1 - tail) + "~" + text.substr(text.size() - tail);
}

std::string cell(const std::string& text, size_t width) {
  std::string result = cut(text, width);
  result.resize(width, ' ');
  return result;
}

std::string joined(const std::vector<TextLine>& lines, bool colours) {
  std::string text;
  for (TextLine line : lines) {
    line.clip(line.text().find_last_not_of(' ') + 1);  // a line of blanks: npos + 1, which is 0
    for (const TextPart& part : line.parts) {
      if (part.text.empty()) continue;
      text += part.colour ? coloured(part.text, *part.colour, colours) : part.text;
    }
    text += '\n';
  }
  return text;
}

}  // namespace lbctl
