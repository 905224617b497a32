// The clock of unit tests: it stands still until a test or a sleep moves it.
//
// Replaces platform/linux/clock.cpp. Every test starts at monotonic 1,000 s and wall clock
// 1,700,000,000 s, with no sleep recorded. Any thread.
#pragma once

#include <chrono>
#include <ctime>
#include <functional>
#include <utility>
#include <vector>

namespace virtual_clock {

// Moves both clocks on.
void advance(std::chrono::nanoseconds by);

// Sets one clock, leaving the other alone.
void set_monotonic(timespec now);
void set_wall(timespec now);

// The durations that sleep_for was asked for since the test started.
std::vector<std::chrono::nanoseconds> sleeps();

// sleep_for moves the clocks on by its duration and returns; `action` then runs in the sleeping
// thread (to end a loop by an exception, to wake something up). Empty: nothing more happens. Waits
// for the threads that are inside the action before.
void on_sleep(std::function<void(std::chrono::nanoseconds)> action);

// An action that refers to a test's objects: on_sleep for as long as it lives.
class SleepHook {
 public:
  explicit SleepHook(std::function<void(std::chrono::nanoseconds)> action) {
    on_sleep(std::move(action));
  }
  ~SleepHook() { on_sleep({}); }
  SleepHook(const SleepHook&) = delete;
  SleepHook& operator=(const SleepHook&) = delete;
};

}  // namespace virtual_clock
