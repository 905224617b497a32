#include "lbctl/log_line.h"

#include <algorithm>
#include <array>
#include <charconv>

namespace lbctl {

namespace {

constexpr std::string_view kProgram = "wan_lb";
constexpr std::string_view kMessage = "%WAN-I-INSTANCE: IP";

constexpr std::array<std::string_view, 12> kMonths = {"Jan", "Feb", "Mar", "Apr", "May", "Jun",
                                                      "Jul", "Aug", "Sep", "Oct", "Nov", "Dec"};

bool take_prefix(std::string_view& text, std::string_view prefix) {
  if (!text.starts_with(prefix)) return false;
  text.remove_prefix(prefix.size());
  return true;
}

bool is_digit(char character) { return character >= '0' && character <= '9'; }

// Exactly so many digits, of a value from `least` to `most`.
bool take_digits(std::string_view& text, size_t count, int least, int most, int& value) {
  if (text.size() < count) return false;
  const char* const end = text.data() + count;
  if (!is_digit(text.front())) return false;  // from_chars takes a sign
  const auto [stop, error] = std::from_chars(text.data(), end, value);
  if (error != std::errc() || stop != end || value < least || value > most) return false;
  text.remove_prefix(count);
  return true;
}

// "23:59:59"; a leap second counts as the one that follows it.
bool take_clock(std::string_view& text, tm& parts) {
  return take_digits(text, 2, 0, 23, parts.tm_hour) && take_prefix(text, ":") &&
         take_digits(text, 2, 0, 59, parts.tm_min) && take_prefix(text, ":") &&
         take_digits(text, 2, 0, 60, parts.tm_sec);
}

// ".123456", which may be missing, in microseconds.
int64_t take_fraction(std::string_view& text) {
  if (text.size() < 2 || text.front() != '.' || !is_digit(text[1])) return 0;
  text.remove_prefix(1);
  int64_t value = 0;
  int64_t unit = kMicroseconds;
  for (; !text.empty() && is_digit(text.front()); text.remove_prefix(1)) {
    unit /= 10;
    value += unit * (text.front() - '0');
  }
  return value;
}

bool exists(const tm& parts) {
  static constexpr int kDays[] = {31, 29, 31, 30, 31, 30, 31, 31, 30, 31, 30, 31};
  const int year = parts.tm_year + 1900;
  const bool is_leap = (year % 4 == 0 && year % 100 != 0) || year % 400 == 0;
  if (parts.tm_mon == 1 && parts.tm_mday == 29) return is_leap;
  return parts.tm_mday <= kDays[parts.tm_mon];
}

std::optional<std::time_t> local_time(tm parts) {
  parts.tm_isdst = -1;
  return std::mktime(&parts);
}

// "Z", "+01:00" or "+0100": seconds east of Greenwich.
std::optional<int> take_offset(std::string_view& text) {
  if (take_prefix(text, "Z") || take_prefix(text, "z")) return 0;
  if (text.empty() || (text.front() != '+' && text.front() != '-')) return std::nullopt;
  std::string_view rest = text.substr(1);
  int hours = 0;
  int minutes = 0;
  if (!take_digits(rest, 2, 0, 23, hours)) return std::nullopt;
  take_prefix(rest, ":");
  if (!take_digits(rest, 2, 0, 59, minutes)) return std::nullopt;
  const int sign = text.front() == '-' ? -1 : 1;
  text = rest;
  return sign * (hours * 3600 + minutes * 60);
}

// "Jan 31 23:59:59", the day with a blank or a 0 before one digit.
std::optional<int64_t> take_classic_stamp(std::string_view& text, std::time_t now) {
  std::string_view rest = text;
  const auto* month = std::find(kMonths.begin(), kMonths.end(), rest.substr(0, 3));
  if (month == kMonths.end()) return std::nullopt;
  rest.remove_prefix(3);
  tm parts{};
  parts.tm_mon = static_cast<int>(month - kMonths.begin());
  if (!take_prefix(rest, " ")) return std::nullopt;
  const bool has_day = take_prefix(rest, " ") ? take_digits(rest, 1, 1, 9, parts.tm_mday)
                                              : take_digits(rest, 2, 1, 31, parts.tm_mday);
  if (!has_day || !take_prefix(rest, " ") || !take_clock(rest, parts)) return std::nullopt;
  const int64_t fraction = take_fraction(rest);

  tm today{};
  localtime_r(&now, &today);
  constexpr int kMostYears = 9;  // Feb 29 has been within these, also beside 2100
  for (int back = 0; back < kMostYears; ++back) {
    parts.tm_year = today.tm_year - back;
    if (!exists(parts)) continue;
    const auto time = local_time(parts);
    if (!time || *time > now) continue;
    text = rest;
    return *time * kMicroseconds + fraction;
  }
  return std::nullopt;
}

std::string_view take_word(std::string_view& text) {
  while (take_prefix(text, " ")) {
  }
  const std::string_view word = text.substr(0, text.find(' '));
  text.remove_prefix(word.size());
  return word;
}

// "wan_lb:" or "wan_lb[123]:".
bool is_daemons_tag(std::string_view word) {
  if (!take_prefix(word, kProgram) || !word.ends_with(':')) return false;
  word.remove_suffix(1);
  if (word.empty()) return true;
  if (!take_prefix(word, "[") || !word.ends_with(']') || word.size() < 2) return false;
  word.remove_suffix(1);
  return std::all_of(word.begin(), word.end(), is_digit);
}

}  // namespace

std::optional<int64_t> take_rfc3339(std::string_view& text) {
  std::string_view rest = text;
  tm parts{};
  if (!take_digits(rest, 4, 1970, 9999, parts.tm_year) || !take_prefix(rest, "-") ||
      !take_digits(rest, 2, 1, 12, parts.tm_mon) || !take_prefix(rest, "-") ||
      !take_digits(rest, 2, 1, 31, parts.tm_mday)) {
    return std::nullopt;
  }
  parts.tm_year -= 1900;
  parts.tm_mon -= 1;
  const bool has_separator =
      take_prefix(rest, "T") || take_prefix(rest, "t") || take_prefix(rest, " ");
  if (!exists(parts) || !has_separator || !take_clock(rest, parts)) return std::nullopt;
  const int64_t fraction = take_fraction(rest);
  const std::optional<int> offset = take_offset(rest);
  const std::optional<std::time_t> time =
      offset ? std::optional(timegm(&parts) - *offset) : local_time(parts);
  if (!time) return std::nullopt;
  text = rest;
  return *time * kMicroseconds + fraction;
}

// The name is what stands between: it may have blanks in it, and even these words.
std::optional<StateChange> parse_state_message(std::string_view message) {
  StateChange change;
  if (!take_prefix(message, kMessage)) return std::nullopt;
  change.ipv6 = take_prefix(message, "v6");
  if (!take_prefix(message, " interface ")) return std::nullopt;
  constexpr std::string_view kActive = " changed state to active";
  constexpr std::string_view kInactive = " changed state to inactive";
  change.active = message.ends_with(kActive);
  if (!change.active && !message.ends_with(kInactive)) return std::nullopt;
  message.remove_suffix(change.active ? kActive.size() : kInactive.size());
  if (message.empty()) return std::nullopt;
  change.interface = message;
  return change;
}

std::optional<StateChange> parse_log_line(std::string_view line, std::time_t now) {
  // Most lines of a system's log are of other programs: this is quick.
  if (line.find(kMessage) == std::string_view::npos) return std::nullopt;
  // What a rotation that copies and truncates leaves at the front.
  line.remove_prefix(std::min(line.find_first_not_of('\0'), line.size()));
  std::optional<int64_t> time = take_rfc3339(line);
  if (!time) time = take_classic_stamp(line, now);
  if (!time || !line.starts_with(' ')) return std::nullopt;
  // Behind the host's name, which some logs leave out.
  const bool has_no_host = is_daemons_tag(take_word(line));
  if (!has_no_host && !is_daemons_tag(take_word(line))) return std::nullopt;
  if (!take_prefix(line, " ")) return std::nullopt;
  std::optional<StateChange> change = parse_state_message(line);
  if (change) change->time = *time;
  return change;
}

}  // namespace lbctl
