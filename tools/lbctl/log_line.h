// State changes as the daemon logs them, found among all lines of a log.
//
//   Jan 31 23:59:59 router wan_lb[123]: %WAN-I-INSTANCE: IP interface wan1 changed state to active
//   2026-01-31T23:59:59.123456+00:00 router wan_lb[123]: %WAN-I-INSTANCE: IPv6 interface ...
#pragma once

#include <cstdint>
#include <ctime>
#include <optional>
#include <string>
#include <string_view>

namespace lbctl {

// In a second: the unit of all times of state changes.
inline constexpr int64_t kMicroseconds = 1'000'000;

struct StateChange {
  int64_t time = 0;       // microseconds since 1970
  std::string interface;  // the device's name for it
  bool ipv6 = false;
  bool active = false;
};

// The change that a message of the daemon tells, without its time.
std::optional<StateChange> parse_state_message(std::string_view message);

// The change that a line tells; nothing for any other line, be it of another program or cut. A
// stamp without a year is local time, of the last year in which it does not lie after `now`.
std::optional<StateChange> parse_log_line(std::string_view line, std::time_t now);

// Takes an RFC 3339 time from the front of `text`; microseconds since 1970. Also where the offset
// has no colon; with neither offset nor "Z" it is local time.
std::optional<int64_t> take_rfc3339(std::string_view& text);

}  // namespace lbctl
