#include "support/virtual_clock/virtual_clock.h"

#include <memory>
#include <utility>

#include "platform/clock.h"
#include "support/spin_lock.h"
#include "support/test_start.h"

namespace {

using std::chrono::nanoseconds;
using std::chrono::seconds;

constexpr nanoseconds kMonotonicStart = seconds(1000);
constexpr nanoseconds kWallStart = seconds(1'700'000'000);

struct Clock {
  SpinLock lock;
  nanoseconds monotonic = kMonotonicStart;
  nanoseconds wall = kWallStart;
  std::vector<nanoseconds> sleeps;
  std::shared_ptr<std::function<void(nanoseconds)>> on_sleep;
};

Clock& the_clock() {
  static Clock* const clock = new Clock;
  return *clock;
}

nanoseconds to_duration(timespec time) { return seconds(time.tv_sec) + nanoseconds(time.tv_nsec); }

timespec to_timespec(nanoseconds time) {
  const auto whole = std::chrono::duration_cast<seconds>(time);
  timespec result{};
  result.tv_sec = static_cast<time_t>(whole.count());
  result.tv_nsec = static_cast<long>((time - whole).count());
  return result;
}

void reset_clock() {
  Clock& clock = the_clock();
  SpinLockHolder holder(clock.lock);
  clock.monotonic = kMonotonicStart;
  clock.wall = kWallStart;
  clock.sleeps.clear();
  clock.on_sleep.reset();
}

const AtTestStart reset_at_test_start(&reset_clock);

}  // namespace

timespec monotonic_now() {
  Clock& clock = the_clock();
  SpinLockHolder holder(clock.lock);
  return to_timespec(clock.monotonic);
}

timespec wall_now() {
  Clock& clock = the_clock();
  SpinLockHolder holder(clock.lock);
  return to_timespec(clock.wall);
}

void sleep_for(timespec duration) {
  Clock& clock = the_clock();
  std::shared_ptr<std::function<void(nanoseconds)>> action;
  {
    SpinLockHolder holder(clock.lock);
    clock.monotonic += to_duration(duration);
    clock.wall += to_duration(duration);
    clock.sleeps.push_back(to_duration(duration));
    action = clock.on_sleep;
  }
  if (action) (*action)(to_duration(duration));
}

namespace virtual_clock {

void advance(nanoseconds by) {
  Clock& clock = the_clock();
  SpinLockHolder holder(clock.lock);
  clock.monotonic += by;
  clock.wall += by;
}

void set_monotonic(timespec now) {
  Clock& clock = the_clock();
  SpinLockHolder holder(clock.lock);
  clock.monotonic = to_duration(now);
}

void set_wall(timespec now) {
  Clock& clock = the_clock();
  SpinLockHolder holder(clock.lock);
  clock.wall = to_duration(now);
}

std::vector<nanoseconds> sleeps() {
  Clock& clock = the_clock();
  SpinLockHolder holder(clock.lock);
  return clock.sleeps;
}

void on_sleep(std::function<void(nanoseconds)> action) {
  using Action = std::function<void(nanoseconds)>;
  std::shared_ptr<Action> replaced = action ? std::make_shared<Action>(std::move(action)) : nullptr;
  Clock& clock = the_clock();
  {
    SpinLockHolder holder(clock.lock);
    clock.on_sleep.swap(replaced);
  }
  // A sleeper that is inside holds it too.
  while (replaced.use_count() > 1) sched_yield();
}

}  // namespace virtual_clock
