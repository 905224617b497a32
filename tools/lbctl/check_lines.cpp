#include "lbctl/check_lines.h"

#include <algorithm>

#include <fmt/format.h>

#include "lbctl/check_grammar.h"

namespace lbctl {

namespace {

constexpr std::string_view kByteOrderMark = "\xEF\xBB\xBF";
constexpr std::string_view kSeparators = " \t~";
constexpr std::string_view kBlanks = " \t";
constexpr size_t kMostCharacters = 1023;

std::vector<Word> words_of(const ReadLine& line) {
  std::vector<Word> words;
  const std::string& text = line.text;
  const size_t first_quote = text.find('"');
  const size_t last_quote = text.rfind('"');
  size_t start = text.find_first_not_of(kSeparators);
  while (start != std::string::npos) {
    const size_t end = std::min(text.find_first_of(kSeparators, start), text.size());
    words.push_back({line.place_of(start), text.substr(start, end - start),
                     first_quote != last_quote && start >= first_quote && end <= last_quote + 1});
    start = text.find_first_not_of(kSeparators, end);
  }
  return words;
}

// One piece of a line; `column` is that of its first byte.
ReadLine read_piece(std::string_view piece, int line_number, size_t column) {
  ReadLine line;
  line.place = {line_number, static_cast<int>(column)};
  const size_t nul = piece.find('\0');
  if (nul != std::string_view::npos) {
    line.hides_text = true;
    piece = piece.substr(0, nul);
  }
  const size_t comment = std::min(piece.find('#'), piece.size());
  line.text = piece.substr(0, comment);
  line.comment = piece.substr(comment);
  line.words = words_of(line);
  return line;
}

bool is_blank(std::string_view text) {
  return text.find_first_not_of(kSeparators) == std::string_view::npos;
}

// Whether the line lacks a brace unless it has one: "target" does in a rule, where it stands alone.
bool must_open(const ReadLine& line) {
  const auto keywords = check_keywords();
  return std::any_of(keywords.begin(), keywords.end(), [&line](const Keyword& keyword) {
    return keyword.must_open && keyword.word == line.words.front().text &&
           (keyword.value != ValueKind::kNone || line.words.size() == 1);
  });
}

// Of a line that must open a block and has no brace of its own: the one that stands first behind
// its "#".
size_t brace_behind_hash(const ReadLine& line) {
  const bool has_brace = std::any_of(line.words.begin(), line.words.end(),
                                     [](const Word& word) { return word.is_brace(); });
  if (line.words.empty() || has_brace || line.comment.empty() || !must_open(line)) {
    return std::string::npos;
  }
  const size_t first = line.comment.find_first_not_of(kBlanks, 1);
  return first != std::string::npos && line.comment[first] == '{' ? first : std::string::npos;
}

void check_comment_braces(const ReadLine& line, Findings& findings) {
  if (line.in_comment) {
    for (const Word& word : line.words) {
      if (!word.is_brace()) continue;
      findings.add(word.place, "brace-in-comment-cut",
                   fmt::format("the '{}' stands in the part of a comment that is cut off its line: "
                               "the daemon takes it for a bracket",
                               word.text),
                   "break the comment into lines of their own, each with its '#'");
      return;
    }
  } else if (const size_t brace = brace_behind_hash(line); brace != std::string::npos) {
    findings.add(line.place_of(line.text.size() + brace), "brace-in-comment-cut",
                 fmt::format("the '{{' stands behind a '#': the daemon sees '{}' without a block",
                             line.words.front().text),
                 "put the '{' before the '#'");
  }
}

void check_quotes(const ReadLine& line, Findings& findings) {
  const auto count = std::count(line.text.begin(), line.text.end(), '"');
  if (count % 2 == 0) return;
  const size_t last = line.text.rfind('"');
  const bool cut = line.comment.find('"') != std::string::npos;
  findings.add(line.place_of(last), "unbalanced-quote",
               count == 1 ? "the quote has no other end: the daemon takes all that follows it on "
                            "the line for the value"
                          : "one quote has no other end: the daemon takes all between the first "
                            "and the last quote of the line for the value",
               cut ? "a '#' starts a comment inside of quotes too: do without it"
                   : "write the value between two double quotes");
}

// Editors show it as a line's end, which it is not. One at the end of a comment hides nothing.
// True when one was told.
bool tell_lone_return(const std::vector<ReadLine>& lines, Findings& findings) {
  for (const ReadLine& line : lines) {
    const std::string whole = line.text + line.comment;
    const size_t found = whole.find('\r');
    const size_t next = whole.find_first_not_of(" \t~\r", found);
    if (found == std::string::npos) continue;
    if (found >= line.text.size() && next == std::string::npos) continue;
    findings.add(line.place_of(found), "carriage-returns",
                 "a carriage return stands here: the daemon takes what follows for the same line",
                 "save the file with Unix line ends (tr '\\r' '\\n' <FILE)");
    return true;
  }
  return false;
}

}  // namespace

std::vector<ReadLine> read_lines(std::string_view text) {
  std::vector<ReadLine> lines;
  size_t skipped = text.starts_with(kByteOrderMark) ? kByteOrderMark.size() : 0;
  size_t start = skipped;
  for (int line_number = 1; start < text.size(); ++line_number) {
    const size_t end = std::min(text.find('\n', start), text.size());
    std::string_view rest = text.substr(start, end - start);
    if (rest.ends_with('\r')) rest.remove_suffix(1);
    size_t column = 1 + skipped;
    bool in_comment = false;
    for (bool continues = false; !rest.empty() || !continues; continues = true) {
      const std::string_view piece = rest.substr(0, kMostCharacters);
      ReadLine line = read_piece(piece, line_number, column);
      line.continues = continues;
      line.in_comment = in_comment;
      in_comment = in_comment || !line.comment.empty();
      lines.push_back(std::move(line));
      rest.remove_prefix(piece.size());
      column += piece.size();
    }
    start = end + 1;
    skipped = 0;
  }
  return lines;
}

void check_bytes(std::string_view text, const std::vector<ReadLine>& lines, Findings& findings) {
  if (text.starts_with(kByteOrderMark)) {
    findings.add({1, 1}, "byte-order-mark",
                 "the file begins with a byte-order mark: the daemon takes it for a part of the "
                 "first word, and passes over the first section without a word",
                 "save the file as UTF-8 without a byte-order mark (sed -i '1s/^\\xEF\\xBB\\xBF//' "
                 "FILE)");
  }
  size_t found = text.find("\r\n");
  if (found == std::string_view::npos && !tell_lone_return(lines, findings) &&
      text.ends_with('\r')) {
    found = text.size() - 1;
  }
  if (found != std::string_view::npos) {
    const auto line_number = 1 + std::count(text.begin(), text.begin() + found, '\n');
    const size_t line_start = text.rfind('\n', found) + 1;
    findings.add({static_cast<int>(line_number), static_cast<int>(found - line_start + 1)},
                 "carriage-returns",
                 "lines end with a carriage return: the daemon takes it for a part of the last "
                 "word, sees no brackets, and reads an empty configuration without a word",
                 "save the file with Unix line ends (sed -i 's/\\r$//' FILE)");
  }
  bool long_line_told = false;
  for (const ReadLine& line : lines) {
    if (!line.continues) long_line_told = false;
    if (line.hides_text) {
      findings.add(line.place_of(line.text.size() + line.comment.size()), "nul-byte",
                   "a NUL byte stands here: the daemon does not see the rest of the line",
                   "remove the byte (tr -d '\\0')");
    }
    if (line.continues && !long_line_told && !(is_blank(line.text) && line.comment.empty())) {
      findings.add(line.place, "long-line",
                   "the line is longer than 1023 characters: the daemon takes what begins here for "
                   "a line of its own",
                   "break the line; of a comment, put a '#' before each part");
      long_line_told = true;
    }
    check_comment_braces(line, findings);
    if (!line.continues) check_quotes(line, findings);
  }
}

}  // namespace lbctl
