// What a burst of echo requests measured, and whether that is good enough. Arithmetic only.
#pragma once

#include <cstdint>

// Limits; each is reached at equality.
struct BurstLimits {
  int32_t jitter = 50;  // milliseconds
  int32_t loss = 1;     // percent
  int32_t rtt = 200;    // milliseconds, mean
};

struct BurstMeasurement {
  int32_t jitter = 0;  // worst round-trip time less the mean one
  int32_t loss = 0;
  int32_t rtt = 0;
};

// The time that a reply is waited for, as it is configured: seconds, and nanoseconds that go into a
// microsecond figure as they are. So only whole seconds make a wait; the rest is refused, which
// fails the first request of every burst.
struct ReplyWait {
  int32_t seconds = 1;
  int32_t nanoseconds = 0;

  bool is_valid() const { return seconds >= 0 && nanoseconds >= 0 && nanoseconds < 1000000; }
  int64_t microseconds() const { return static_cast<int64_t>(seconds) * 1000000 + nanoseconds; }
  // The limit in milliseconds that lost replies count with.
  int64_t limit() const { return static_cast<int64_t>(seconds) * 1000 + nanoseconds / 1000000; }
};

// The sums of one burst.
class BurstTally {
 public:
  void add_sent() { ++sent_; }
  void add_reply(int64_t rtt);   // milliseconds
  void add_lost(int64_t limit);  // counts as a round trip of the whole limit

  int32_t sent() const { return sent_; }

  // The figures of a burst of `count` requests, `count` at least 1.
  BurstMeasurement measure(int32_t count) const;

 private:
  int32_t sent_ = 0;
  int32_t received_ = 0;
  int64_t total_ = 0;
  int64_t worst_ = 0;
};

// True when no limit is reached.
bool is_acceptable(const BurstMeasurement& measured, const BurstLimits& limits);

// True when less than `period` seconds have passed since `last_run_ms`, so that no burst is due; 0
// stands for never. 32-bit arithmetic on purpose: the milliseconds wrap after 49 days, differences
// do not notice.
bool is_within_period(int64_t last_run_ms, int64_t now_ms, int32_t period);
