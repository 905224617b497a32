// The text of the routing daemon's pid file.
#include <climits>
#include <optional>
#include <string>

#include "routing/routing_daemon.h"
#include "support/bytes.h"
#include "support/property.h"

namespace {

// Blanks, perhaps a plus, digits; what follows does not matter.
std::optional<pid_t> naive_pid(std::string_view text) {
  size_t position = 0;
  const auto next = [&] { return position < text.size() ? text[position] : '\0'; };
  while (next() == ' ' || (next() >= '\t' && next() <= '\r')) ++position;
  if (next() == '+') ++position;
  long long number = 0;
  for (; next() >= '0' && next() <= '9'; ++position) {
    number = number * 10 + (next() - '0');
    if (number > INT_MAX) return std::nullopt;
  }
  if (number == 0) return std::nullopt;
  return static_cast<pid_t>(number);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const ExactCopy copy({data, size});
  const std::string text(copy.text());
  const auto pid = parse_routing_pid(text);
  HOLDS(pid == naive_pid(text));
  if (!pid) return 0;
  // Never 0, a process group or every process.
  HOLDS(*pid > 0);
  HOLDS(parse_routing_pid(std::to_string(*pid)) == pid);
  HOLDS(parse_routing_pid(" " + text + " ") == pid);
  return 0;
}
