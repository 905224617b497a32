// The file of log flags.
#include "platform/linux/log_flags.h"

#include <map>
#include <optional>
#include <string>
#include <vector>

#include "support/bytes.h"
#include "support/memory_file.h"
#include "support/property.h"

namespace {

// What the file sets, read a second time.
struct Flags {
  std::map<int, int> levels;
  bool all_repeats = false;
  std::vector<int> bad_lines;  // their numbers
};

std::vector<std::string> words_of(const std::string& line) {
  std::vector<std::string> words(1);
  for (const char character : line) {
    if (character == '#') break;
    if (character == ' ' || (character >= '\t' && character <= '\r')) {
      if (!words.back().empty()) words.emplace_back();
    } else {
      words.back() += character;
    }
  }
  if (words.back().empty()) words.pop_back();
  return words;
}

std::optional<int> small_number(const std::string& word) {
  if (word.empty() || word.size() > 6) return std::nullopt;
  int number = 0;
  for (const char character : word) {
    if (character < '0' || character > '9') return std::nullopt;
    number = number * 10 + (character - '0');
  }
  return number;
}

// False for a line that is no flag.
bool apply_line(const std::string& line, Flags& flags) {
  if (line.size() > 254 || line.find('\0') != std::string::npos) return false;
  const std::vector<std::string> words = words_of(line);
  if (words.empty()) return true;
  if (words.size() != 2) return false;
  if (words[0] == "repeats") {
    if (words[1] != "all") return false;
    flags.all_repeats = true;
    return true;
  }
  const auto facility = small_number(words[0]);
  const auto level = small_number(words[1]);
  if (!facility || !level || *level > 3) return false;
  flags.levels[*facility] = *level;
  return true;
}

Flags naive_flags(std::string_view text) {
  Flags flags;
  int number = 0;
  for (size_t start = 0; start < text.size() && number < 1000;) {
    const size_t end = std::min(text.find('\n', start), text.size());
    ++number;
    if (!apply_line(std::string(text.substr(start, end - start)), flags)) {
      flags.bad_lines.push_back(number);
    }
    start = end + 1;
  }
  return flags;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const ExactCopy copy({data, size});
  static MemoryFile file("log-flags");
  file.replace(copy.text());

  LogFlags flags(file.path());
  const std::vector<std::string> problems = flags.refresh({1, 0});
  const Flags expected = naive_flags(copy.text());
  HOLDS(flags.all_repeats() == expected.all_repeats);
  for (int facility = 0; facility <= 64; ++facility) {
    const auto found = expected.levels.find(facility);
    const int highest = found == expected.levels.end() ? 2 : found->second;
    for (int level = 0; level <= 4; ++level) {
      HOLDS(flags.wanted(facility, level) == (level <= highest));
    }
  }
  for (const auto& [facility, level] : expected.levels) {
    HOLDS(flags.wanted(facility, level) && !flags.wanted(facility, level + 1));
  }
  HOLDS(problems.size() == std::min<size_t>(expected.bad_lines.size(), 20));
  for (size_t i = 0; i < problems.size(); ++i) {
    HOLDS(
        problems[i].starts_with(file.path() + ":" + std::to_string(expected.bad_lines[i]) + ": "));
  }

  // A file that did not change is not read again, and nothing is reported twice.
  HOLDS(flags.refresh({2, 0}).empty());
  HOLDS(flags.all_repeats() == expected.all_repeats);
  return 0;
}
