#include "lbctl/print.h"

#include <unistd.h>

#include <cstdio>
#include <cstdlib>

#include <fmt/format.h>
#include <nlohmann/json.hpp>

namespace lbctl {

namespace {

constexpr std::string_view kIpv6Suffix = "/6";

const char* escape_sequence(Colour colour) {
  switch (colour) {
    case Colour::kGreen:
      return "\033[32m";
    case Colour::kRed:
      return "\033[31m";
    case Colour::kYellow:
      return "\033[33m";
    case Colour::kBold:
      return "\033[1m";
    case Colour::kDim:
      return "\033[2m";
  }
  return "";
}

}  // namespace

Json document(const std::string& name) { return {{"schema", "wan_lb/" + name + "/1"}}; }

void print_document(const Json& document) {
  print_text(document.dump(2, ' ', false, Json::error_handler_t::replace) + "\n");
}

void print_text(std::string_view text) { std::fwrite(text.data(), 1, text.size(), stdout); }

void complain(const std::string& text) {
  std::fprintf(stderr, "lbctl: %s\n", printable(text).c_str());
}

std::string printable(std::string_view text) {
  std::string result(text);
  int left = 0;  // bytes that the UTF-8 character still has
  for (size_t at = 0; at < result.size(); ++at) {
    const auto byte = static_cast<unsigned char>(result[at]);
    const bool follows = (byte & 0xC0) == 0x80;
    if (follows && left > 0) {
      --left;
      if (byte < 0xA0 && result[at - 1] == '\xC2') result[at - 1] = result[at] = '?';
      continue;
    }
    left = 0;
    if (byte >= 0xC0) left = byte >= 0xF0 ? 3 : byte >= 0xE0 ? 2 : 1;
    if (byte < 0x20 || byte == 0x7F || (follows && byte < 0xA0)) result[at] = '?';
  }
  return result;
}

bool wants_colour() {
  const char* const refused = std::getenv("NO_COLOR");
  return isatty(STDOUT_FILENO) == 1 && (refused == nullptr || *refused == '\0');
}

std::string coloured(std::string_view text, Colour colour, bool wanted) {
  if (!wanted) return std::string(text);
  return fmt::format("{}{}\033[0m", escape_sequence(colour), text);
}

std::string rfc3339(std::time_t time) {
  tm parts{};
  gmtime_r(&time, &parts);
  return fmt::format("{:04}-{:02}-{:02}T{:02}:{:02}:{:02}Z", parts.tm_year + 1900, parts.tm_mon + 1,
                     parts.tm_mday, parts.tm_hour, parts.tm_min, parts.tm_sec);
}

std::string span(int64_t seconds) {
  const auto in = [seconds](int64_t large, const char* large_unit, int64_t small,
                            const char* small_unit) {
    const int64_t rest = seconds % large / small;
    if (rest == 0) return fmt::format("{} {}", seconds / large, large_unit);
    return fmt::format("{} {} {} {}", seconds / large, large_unit, rest, small_unit);
  };
  if (seconds < 60) return fmt::format("{} s", seconds);
  if (seconds < 3600) return in(60, "min", 1, "s");
  if (seconds < 86400) return in(3600, "h", 60, "min");
  return in(86400, "d", 3600, "h");
}

std::string interface_label(const std::string& name, bool ipv6) {
  return ipv6 ? name + std::string(kIpv6Suffix) : name;
}

bool parse_interface_label(std::string_view label, std::string& name, bool& ipv6) {
  ipv6 = label.size() >= kIpv6Suffix.size() &&
         label.substr(label.size() - kIpv6Suffix.size()) == kIpv6Suffix;
  if (ipv6) label.remove_suffix(kIpv6Suffix.size());
  name = label;
  return !name.empty();
}

}  // namespace lbctl
