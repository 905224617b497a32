// One line of a trace: what happened to an interface, and when.
//
//   SECONDS probe INTERFACE TARGET ok|fail
//   SECONDS burst INTERFACE TARGET LOSS RTT JITTER
//   SECONDS nexthop INTERFACE ADDRESS|-
//
// "#" at the start of a word begins a comment. A word with blanks stands in double quotes.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

namespace lbctl {

inline constexpr int64_t kNanosecondsPerSecond = 1'000'000'000;

enum class TraceKind { kNothing, kProbe, kBurst, kNexthop };

struct TraceLine {
  TraceKind kind = TraceKind::kNothing;  // kNothing: an empty line or a comment
  int64_t time = 0;                      // nanoseconds
  std::string_view interface;            // "wan1", "wan1/6"
  std::string_view target;
  std::string_view subject;  // interface and target as they stand in the line
  bool is_good = false;      // of a probe
  int32_t loss = 0;          // percent
  int32_t rtt = 0;           // milliseconds
  int32_t jitter = 0;        // milliseconds
  std::string_view address;  // of a next hop; empty for "-"
};

// Reads a line; its texts point into `text`. Null, or what is wrong with it.
const char* parse_trace_line(std::string_view text, TraceLine& line);

// A time as a trace has it, "12.5", into nanoseconds. False for another text.
bool parse_trace_time(std::string_view text, int64_t& time);

// Whether the text is an address of the family, as a next hop must be.
bool is_trace_address(std::string_view text, bool ipv6);

// The word as a line of a trace has it. Empty when it has no place there.
std::string trace_word(std::string_view word);

}  // namespace lbctl
