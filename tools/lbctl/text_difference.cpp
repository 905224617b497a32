// The shortest script of deletions and insertions (E. Myers, "An O(ND) Difference Algorithm and Its
// Variations", 1986) between what a common beginning and a common end leave.
#include "lbctl/text_difference.h"

#include <algorithm>
#include <cstddef>
#include <vector>

#include <fmt/format.h>

namespace lbctl {

namespace {

constexpr size_t kContext = 3;

// Beyond so many edits the script is not worth its memory: all is deleted and inserted again.
constexpr ptrdiff_t kMostEdits = 2000;

using PlainLines = std::vector<std::string_view>;

// With their newlines; only the last may have none.
PlainLines lines_of(std::string_view text) {
  PlainLines lines;
  while (!text.empty()) {
    const size_t length = std::min(text.find('\n'), text.size() - 1) + 1;
    lines.push_back(text.substr(0, length));
    text.remove_prefix(length);
  }
  return lines;
}

struct Edit {
  char mark;  // ' ', '-' or '+'
  std::string_view line;
};
using Script = std::vector<Edit>;

// The script for the parts [old_begin, old_end) and [new_begin, new_end).
struct Part {
  const PlainLines& old_lines;
  const PlainLines& new_lines;
  ptrdiff_t old_begin, old_end, new_begin, new_end;

  ptrdiff_t old_size() const { return old_end - old_begin; }
  ptrdiff_t new_size() const { return new_end - new_begin; }
  std::string_view old_line(ptrdiff_t at) const {
    return old_lines[static_cast<size_t>(old_begin + at)];
  }
  std::string_view new_line(ptrdiff_t at) const {
    return new_lines[static_cast<size_t>(new_begin + at)];
  }
};

// The farthest old line that is reached on each diagonal after 0, 1, 2, ... edits. Diagonal k (old
// less new) stands at k + edits + 1.
using Frontiers = std::vector<std::vector<ptrdiff_t>>;

// How a diagonal is reached with one more edit than `before`: from the one above by an insertion,
// or from the one below by a deletion.
struct Step {
  bool inserts;
  ptrdiff_t start;  // the old line behind the edit
};
Step step_onto(ptrdiff_t diagonal, const std::vector<ptrdiff_t>& before, ptrdiff_t edits) {
  const auto reached = [&](ptrdiff_t other) { return before[static_cast<size_t>(other + edits)]; };
  const bool inserts =
      diagonal == -edits || (diagonal != edits && reached(diagonal - 1) < reached(diagonal + 1));
  return {inserts, inserts ? reached(diagonal + 1) : reached(diagonal - 1) + 1};
}

// False when it takes too many edits.
bool find_frontiers(const Part& part, Frontiers& frontiers) {
  const ptrdiff_t most = std::min(part.old_size() + part.new_size(), kMostEdits);
  for (ptrdiff_t edits = 0; edits <= most; ++edits) {
    std::vector<ptrdiff_t> frontier(static_cast<size_t>(2 * edits + 3), -1);
    for (ptrdiff_t diagonal = -edits; diagonal <= edits; diagonal += 2) {
      ptrdiff_t x = edits == 0 ? 0 : step_onto(diagonal, frontiers.back(), edits).start;
      while (x < part.old_size() && x - diagonal < part.new_size() && x - diagonal >= 0 &&
             part.old_line(x) == part.new_line(x - diagonal)) {
        ++x;
      }
      frontier[static_cast<size_t>(diagonal + edits + 1)] = x;
      if (x >= part.old_size() && x - diagonal >= part.new_size()) {
        frontiers.push_back(std::move(frontier));
        return true;
      }
    }
    frontiers.push_back(std::move(frontier));
  }
  return false;
}

void append_replacement(const Part& part, Script& script) {
  for (ptrdiff_t at = 0; at < part.old_size(); ++at) script.push_back({'-', part.old_line(at)});
  for (ptrdiff_t at = 0; at < part.new_size(); ++at) script.push_back({'+', part.new_line(at)});
}

void append_shortest(const Part& part, Script& script) {
  Frontiers frontiers;
  if (!find_frontiers(part, frontiers)) return append_replacement(part, script);
  Script reversed;
  ptrdiff_t x = part.old_size();
  ptrdiff_t y = part.new_size();
  for (ptrdiff_t edits = static_cast<ptrdiff_t>(frontiers.size()) - 1; edits > 0; --edits) {
    const Step step = step_onto(x - y, frontiers[static_cast<size_t>(edits - 1)], edits);
    for (; x > step.start; --x, --y) reversed.push_back({' ', part.old_line(x - 1)});
    if (step.inserts) {
      reversed.push_back({'+', part.new_line(--y)});
    } else {
      reversed.push_back({'-', part.old_line(--x)});
    }
  }
  for (; x > 0; --x) reversed.push_back({' ', part.old_line(x - 1)});
  script.insert(script.end(), reversed.rbegin(), reversed.rend());
}

Script script_of(const PlainLines& old_lines, const PlainLines& new_lines) {
  const size_t shorter = std::min(old_lines.size(), new_lines.size());
  size_t head = 0;
  while (head < shorter && old_lines[head] == new_lines[head]) ++head;
  size_t tail = 0;
  while (tail < shorter - head && *(old_lines.rbegin() + static_cast<ptrdiff_t>(tail)) ==
                                      *(new_lines.rbegin() + static_cast<ptrdiff_t>(tail))) {
    ++tail;
  }
  Script script;
  for (size_t at = 0; at < head; ++at) script.push_back({' ', old_lines[at]});
  append_shortest({old_lines, new_lines, static_cast<ptrdiff_t>(head),
                   static_cast<ptrdiff_t>(old_lines.size() - tail), static_cast<ptrdiff_t>(head),
                   static_cast<ptrdiff_t>(new_lines.size() - tail)},
                  script);
  for (size_t at = old_lines.size() - tail; at < old_lines.size(); ++at) {
    script.push_back({' ', old_lines[at]});
  }
  return script;
}

// "12", "12,3", or for no line the one before: "11,0".
std::string range_text(size_t lines_before, size_t count) {
  if (count == 1) return std::to_string(lines_before + 1);
  return fmt::format("{},{}", count == 0 ? lines_before : lines_before + 1, count);
}

// A hunk and where it starts.
class Hunks {
 public:
  explicit Hunks(const Script& script) : script_(script) {}

  std::string text() {
    for (size_t at = 0; at < script_.size();) {
      if (script_[at].mark == ' ') {
        count(script_[at]);
        ++at;
        continue;
      }
      at = write_hunk(at);
    }
    return std::move(text_);
  }

 private:
  void count(const Edit& edit) {
    if (edit.mark != '+') ++old_line_;
    if (edit.mark != '-') ++new_line_;
  }

  // From the first change on; the place behind the hunk.
  size_t write_hunk(size_t change) {
    size_t end = change;
    for (size_t at = change; at < script_.size() && at <= end + 2 * kContext + 1; ++at) {
      if (script_[at].mark != ' ') end = at;
    }
    end = std::min(end + 1 + kContext, script_.size());
    const size_t begin = change - std::min(change, kContext);
    const size_t old_before = old_line_ - (change - begin);
    const size_t new_before = new_line_ - (change - begin);
    std::string lines;
    for (size_t at = begin; at < end; ++at) {
      lines += script_[at].mark;
      lines += script_[at].line;
      if (!script_[at].line.ends_with('\n')) lines += "\n\\ No newline at end of file\n";
      if (at >= change) count(script_[at]);
    }
    text_ += fmt::format("@@ -{} +{} @@\n{}", range_text(old_before, old_line_ - old_before),
                         range_text(new_before, new_line_ - new_before), lines);
    return end;
  }

  const Script& script_;
  std::string text_;
  size_t old_line_ = 0;
  size_t new_line_ = 0;
};

}  // namespace

std::string unified_difference(std::string_view old_text, std::string_view new_text,
                               const std::string& old_name, const std::string& new_name) {
  if (old_text == new_text) return "";
  const PlainLines old_lines = lines_of(old_text);
  const PlainLines new_lines = lines_of(new_text);
  const Script script = script_of(old_lines, new_lines);
  return fmt::format("--- {}\n+++ {}\n{}", old_name, new_name, Hunks(script).text());
}

}  // namespace lbctl
