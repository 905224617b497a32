// Who reported when: the watchdog is fed only while all who ever reported go on reporting.
#pragma once

#include <cstdint>
#include <map>
#include <optional>

#include "platform/mutex.h"

// Any thread. Times and time-outs are microseconds of the monotonic clock. A thread that ended is
// one that no longer reports.
class Liveness {
 public:
  // Notes a report of `reporter`: alive now, or not alive until its next report.
  void report(uint64_t reporter, uint64_t now, bool alive) LB_EXCLUDES(mutex_) {
    MutexLock lock(mutex_);
    reports_[reporter] = alive ? std::optional(now) : std::nullopt;
  }

  // True when every reporter's last report is `timeout` old at most.
  bool all_alive(uint64_t now, uint64_t timeout) const LB_EXCLUDES(mutex_) {
    MutexLock lock(mutex_);
    for (const auto& [reporter, last] : reports_) {
      // Another thread may have reported since `now` was read.
      if (!last || (*last < now && now - *last > timeout)) return false;
    }
    return true;
  }

 private:
  mutable Mutex mutex_;
  std::map<uint64_t, std::optional<uint64_t>> reports_ LB_GUARDED_BY(mutex_);
};
