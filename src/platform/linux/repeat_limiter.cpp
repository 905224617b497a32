#include "platform/linux/repeat_limiter.h"

#include <utility>

namespace {

bool is_over(timespec passed, timespec now, time_t seconds) {
  const time_t whole = now.tv_sec - passed.tv_sec;
  return whole > seconds || (whole == seconds && now.tv_nsec >= passed.tv_nsec);
}

}  // namespace

LogMessage RepeatLimiter::with_count(const Entry& entry) {
  if (entry.held == 0) return entry.message;
  return {entry.message.priority,
          entry.message.text + " (" + std::to_string(entry.held) + " more held back)"};
}

void RepeatLimiter::forget(Entries::iterator entry) {
  by_text_.erase(entry->message.text);
  entries_.erase(entry);
}

std::vector<LogMessage> RepeatLimiter::admit(LogMessage message, timespec now) {
  const auto known = by_text_.find(message.text);
  if (known != by_text_.end()) {
    Entry& entry = *known->second;
    if (!is_over(entry.passed, now, kHoldSeconds)) {
      ++entry.held;
      return due(now);
    }
    const LogMessage passing = with_count(entry);
    entry.passed = now;
    entry.held = 0;
    entries_.splice(entries_.end(), entries_, known->second);
    std::vector<LogMessage> sent = due(now);
    sent.push_back(passing);
    return sent;
  }

  std::vector<LogMessage> sent = due(now);
  if (entries_.size() >= kMaxTexts) {
    if (entries_.front().held > 0) sent.push_back(with_count(entries_.front()));
    forget(entries_.begin());
  }
  sent.push_back(message);
  entries_.push_back({std::move(message), now});
  by_text_.emplace(entries_.back().message.text, std::prev(entries_.end()));
  return sent;
}

std::vector<LogMessage> RepeatLimiter::due(timespec now) {
  std::vector<LogMessage> sent;
  while (!entries_.empty() && is_over(entries_.front().passed, now, kHoldSeconds)) {
    const auto entry = entries_.begin();
    if (entry->held == 0) {
      forget(entry);
      continue;
    }
    // Telling the count is a pass of the text: its next minute starts.
    sent.push_back(with_count(*entry));
    entry->passed = now;
    entry->held = 0;
    entries_.splice(entries_.end(), entries_, entry);
  }
  return sent;
}
