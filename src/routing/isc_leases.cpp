#include "routing/isc_leases.h"

#include <netinet/in.h>
#include <sys/socket.h>

#include <algorithm>
#include <array>
#include <charconv>
#include <ctime>
#include <limits>
#include <vector>

#include "packets/family.h"

namespace {

constexpr std::string_view kBlanks = " \t\r\n\v\f";
constexpr std::string_view kWordEnds = " \t\r\n\v\f\"{};,#";
constexpr int64_t kNever = std::numeric_limits<int64_t>::max();

struct Token {
  enum class Kind { kEnd, kWord, kString, kSign };
  Kind kind = Kind::kEnd;
  std::string_view text;  // of a string: between the quotes, as it is written

  bool is(Kind wanted, std::string_view wanted_text) const {
    return kind == wanted && text == wanted_text;
  }
  bool is_word(std::string_view wanted) const { return is(Kind::kWord, wanted); }
  bool is_sign(std::string_view wanted) const { return is(Kind::kSign, wanted); }
};

// Words, strings in double quotes, and the signs { } ; and ,. A comment goes from # to the line's
// end. A string that does not end ends the text.
class Lexer {
 public:
  explicit Lexer(std::string_view text) : rest_(text) {}

  Token next() {
    skip_blanks_and_comments();
    if (rest_.empty()) return {};
    if (rest_[0] == '"') return take_string();
    if (kWordEnds.find(rest_[0]) != std::string_view::npos) return take(Token::Kind::kSign, 1);
    return take(Token::Kind::kWord, rest_.find_first_of(kWordEnds));
  }

  std::string_view rest() const { return rest_; }

 private:
  void skip_blanks_and_comments() {
    while (true) {
      drop(rest_.find_first_not_of(kBlanks));
      if (rest_.empty() || rest_[0] != '#') return;
      drop(rest_.find('\n'));
    }
  }

  Token take_string() {
    drop(1);
    size_t end = rest_.find_first_of("\"\\");
    while (end != std::string_view::npos && rest_[end] == '\\') {
      end = end + 2 < rest_.size() ? rest_.find_first_of("\"\\", end + 2) : std::string_view::npos;
    }
    if (end == std::string_view::npos) {
      rest_ = {};
      return {};
    }
    const Token token = take(Token::Kind::kString, end);
    drop(1);
    return token;
  }

  Token take(Token::Kind kind, size_t size) {
    const Token token{kind, rest_.substr(0, size)};
    drop(size);
    return token;
  }

  // Beyond the end: all of it.
  void drop(size_t count) { rest_.remove_prefix(std::min(count, rest_.size())); }

  std::string_view rest_;
};

// What a string stands for: \ooo (octal), \xhh, and \ before any other character.
std::string unescaped(std::string_view written) {
  std::string text;
  while (!written.empty()) {
    const char first = written[0];
    written.remove_prefix(1);
    if (first != '\\' || written.empty()) {
      text += first;
      continue;
    }
    const bool is_hex = written[0] == 'x';
    if (is_hex) written.remove_prefix(1);
    const std::string_view digits = written.substr(0, is_hex ? 2 : 3);
    unsigned int code = 0;
    const auto end =
        std::from_chars(digits.data(), digits.data() + digits.size(), code, is_hex ? 16 : 8).ptr;
    const auto count = static_cast<size_t>(end - digits.data());
    if (count == 0 && is_hex) {
      text += 'x';
    } else if (count == 0) {
      text += written[0];
      written.remove_prefix(1);
    } else {
      text += static_cast<char>(code);
      written.remove_prefix(count);
    }
  }
  return text;
}

// A number of nothing but digits.
std::optional<int64_t> number(std::string_view text) {
  int64_t value = 0;
  const char* const end = text.data() + text.size();
  const auto result = std::from_chars(text.data(), end, value);
  if (result.ec != std::errc() || result.ptr != end || text[0] == '-') return std::nullopt;
  return value;
}

// Three numbers with `separator` between them.
std::optional<std::array<int, 3>> three_numbers(std::string_view text, char separator) {
  std::array<int, 3> numbers{};
  for (size_t i = 0; i < numbers.size(); ++i) {
    const size_t end = i + 1 < numbers.size() ? text.find(separator) : text.size();
    if (end == std::string_view::npos) return std::nullopt;
    const auto value = number(text.substr(0, end));
    if (!value || *value > 9999) return std::nullopt;
    numbers[i] = static_cast<int>(*value);
    text.remove_prefix(std::min(end + 1, text.size()));
  }
  return numbers;
}

// "2026/11/25" and "01:02:03", UTC.
std::optional<int64_t> date(std::string_view day_text, std::string_view time_text) {
  const auto day = three_numbers(day_text, '/');
  const auto time = three_numbers(time_text, ':');
  if (!day || !time) return std::nullopt;
  const auto& [year, month, of_month] = *day;
  const auto& [hour, minute, second] = *time;
  if (year < 1970 || month < 1 || month > 12 || of_month < 1 || of_month > 31 || hour > 23 ||
      minute > 59 || second > 60) {
    return std::nullopt;
  }
  tm broken{};
  broken.tm_year = year - 1900;
  broken.tm_mon = month - 1;
  broken.tm_mday = of_month;
  broken.tm_hour = hour;
  broken.tm_min = minute;
  broken.tm_sec = second;
  return timegm(&broken);
}

// The words and commas of a statement, as far as they are looked at.
using Statement = std::vector<Token>;
constexpr size_t kMostWords = 8;

// The end that an "expire" statement names; nothing for one that cannot be read.
std::optional<int64_t> end_of(const Statement& words) {
  if (words.size() == 2 && words[1].is_word("never")) return kNever;
  if (words.size() == 3 && words[1].is_word("epoch")) return number(words[2].text);
  if (words.size() != 4 || !number(words[1].text)) return std::nullopt;  // the day of the week
  return date(words[2].text, words[3].text);
}

struct Lease {
  bool is_readable = true;
  std::optional<std::string> device;
  int64_t end = kNever;
  std::string router;

  void read(const Statement& words) {
    if (words[0].is_word("interface")) {
      device = words.size() == 2 ? unescaped(words[1].text) : std::string();
    } else if (words[0].is_word("expire")) {
      const auto written = end_of(words);
      is_readable = is_readable && written.has_value();
      end = written.value_or(kNever);
    } else if (words.size() > 2 && words[0].is_word("option") && words[1].is_word("routers")) {
      router = std::string(words[2].text);
    }
  }

  bool counts(const std::string& wanted_device, int64_t now) const {
    return is_readable && end > now && device.value_or(wanted_device) == wanted_device;
  }
};

std::optional<std::string> address_or_nothing(const Family& family, const std::string& text) {
  in6_addr address;  // room for an address of either family
  if (address_from_text(family.address_family, text, &address) != 1) return std::nullopt;
  return text;
}

// Takes the rest of a block, whose "{" is taken already.
void skip_block(Lexer& lexer) {
  for (int depth = 1; depth > 0;) {
    const Token token = lexer.next();
    if (token.kind == Token::Kind::kEnd) return;
    if (token.is_sign("{")) ++depth;
    if (token.is_sign("}")) --depth;
  }
}

// The lease whose "{" is taken already; nothing for one that does not end.
std::optional<Lease> take_lease(Lexer& lexer) {
  Lease lease;
  Statement words;
  while (true) {
    const Token token = lexer.next();
    if (token.kind == Token::Kind::kEnd) return std::nullopt;
    if (token.is_sign("}")) return lease;
    if (token.is_sign("{")) {
      skip_block(lexer);
      words.clear();
    } else if (token.is_sign(";")) {
      if (!words.empty()) lease.read(words);
      words.clear();
    } else if (words.size() < kMostWords) {
      words.push_back(token);
    }
  }
}

// The first address of what stands behind "new_routers=", in quotes or not.
std::optional<std::string> first_router(std::string_view value) {
  while (!value.empty() && kBlanks.find(value.back()) != std::string_view::npos) {
    value.remove_suffix(1);
  }
  if (!value.empty() && (value[0] == '\'' || value[0] == '"')) {
    if (value.size() < 2 || value.back() != value[0]) return std::nullopt;
    value = value.substr(1, value.size() - 2);
  }
  return address_or_nothing(kIpv6, std::string(value.substr(0, value.find(' '))));
}

// True at "lease6 {", with `lexer` behind the bracket.
bool begins_lease6(Lexer& lexer) {
  return lexer.next().is_word("lease6") && lexer.next().is_sign("{");
}

}  // namespace

std::optional<std::string> isc_lease_router(std::string_view text, const std::string& device,
                                            int64_t now) {
  Lexer lexer(text);
  std::optional<Lease> newest;
  bool is_lease = false;  // the statement up to here is the word "lease" alone
  bool is_first = true;   // of a statement
  for (Token token = lexer.next(); token.kind != Token::Kind::kEnd; token = lexer.next()) {
    if (token.is_sign("{")) {
      if (is_lease) {
        const auto lease = take_lease(lexer);
        if (lease && lease->counts(device, now)) newest = lease;
      } else {
        skip_block(lexer);
      }
    }
    is_lease = is_first && token.is_word("lease");
    is_first = token.is_sign("{") || token.is_sign("}") || token.is_sign(";");
  }
  return newest ? address_or_nothing(kIpv4, newest->router) : std::nullopt;
}

std::optional<std::string> script_router(std::string_view text) {
  constexpr std::string_view kName = "new_routers=";
  while (!text.empty()) {
    // Only where the word stands, since a string that does not end would take the text with it.
    const std::string_view line = text.substr(0, text.find('\n'));
    const size_t start = std::min(line.find_first_not_of(kBlanks), line.size());
    Lexer lexer(text);
    if (line.substr(start).starts_with("lease6") && begins_lease6(lexer)) {
      skip_block(lexer);
      text = lexer.rest();
      continue;
    }
    if (line.starts_with(kName)) {
      if (auto router = first_router(line.substr(kName.size()))) return router;
    }
    text.remove_prefix(std::min(line.size() + 1, text.size()));
  }
  return std::nullopt;
}
