// Keeps a message that repeats from filling the disk: the same text passes once a minute at most,
// and tells then how many were held back.
//
// Memory is bounded: of more than kMaxTexts different texts within a minute the oldest is forgotten
// (its count is told first), and passes again when it comes back.
#pragma once

#include <ctime>
#include <list>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

struct LogMessage {
  int priority;
  std::string text;
};

// Not synchronised: the caller locks. Times are of the monotonic clock and do not go back.
class RepeatLimiter {
 public:
  static constexpr time_t kHoldSeconds = 60;
  static constexpr size_t kMaxTexts = 512;

  // Takes a message; returns what is to be sent now, in order. The counts of other texts whose
  // minute is over may come before it.
  std::vector<LogMessage> admit(LogMessage message, timespec now);

  // The counts of texts whose minute is over.
  std::vector<LogMessage> due(timespec now);

 private:
  struct Entry {
    LogMessage message;
    timespec passed;
    unsigned long held = 0;
  };
  using Entries = std::list<Entry>;

  static LogMessage with_count(const Entry& entry);
  void forget(Entries::iterator entry);

  Entries entries_;  // the one that passed longest ago in front
  std::unordered_map<std::string_view, Entries::iterator> by_text_;  // keys are the entries' texts
};
