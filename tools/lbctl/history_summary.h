// From state changes to what they add up to: how long each state lasted, and for how much of the
// time an interface was there.
#pragma once

#include <cstdint>
#include <ctime>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "lbctl/log_line.h"

namespace lbctl {

// A change of state, and how long the new one lasted (so far). A message that repeats the state,
// as a restart of the daemon makes them, is none.
struct HistoryChange {
  StateChange change;
  int64_t duration = 0;  // microseconds
};

struct HistoryInterface {
  struct Period {
    int64_t from, to;
    bool active;
  };

  std::string name;
  bool ipv6 = false;
  std::vector<Period> periods;                 // known states, within the span
  std::optional<double> availability_percent;  // no value where no time is known
  uint64_t changes = 0;                        // of HistoryChanges
  uint64_t flaps = 0;                          // from active to failed
  std::optional<double> flaps_per_day;
};

struct History {
  int64_t begin = 0;  // microseconds since 1970
  int64_t end = 0;
  std::vector<HistoryInterface> interfaces;  // IPv4, then IPv6; by name
  std::vector<HistoryChange> changes;        // in the order of time
};

// What `changes`, in the order of time, tell of the span. Without `since` it begins with the first
// change. A state is unknown before the first change of its interface.
History summarize(const std::vector<StateChange>& changes, std::optional<int64_t> since,
                  int64_t until);

// A time as options have it: RFC 3339, a date alone, or a span back from `now` ("7d", "24h", "30m",
// "90s"); microseconds since 1970.
std::optional<int64_t> parse_history_time(std::string_view text, std::time_t now);

}  // namespace lbctl
