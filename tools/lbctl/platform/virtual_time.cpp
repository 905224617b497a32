#include "lbctl/platform/virtual_time.h"

#include <cerrno>
#include <ctime>

#include "platform/clock.h"

namespace lbctl {
namespace {

struct State {
  bool is_virtual = false;
  timespec now{};
};

State& state() {
  static thread_local State state;
  return state;
}

timespec now_by(clockid_t clock) {
  if (state().is_virtual) return state().now;
  timespec now{};
  clock_gettime(clock, &now);
  return now;
}

}  // namespace

VirtualTime::VirtualTime(int64_t seconds, int64_t nanoseconds) {
  state().is_virtual = true;
  set(seconds, nanoseconds);
}

VirtualTime::~VirtualTime() { state().is_virtual = false; }

void VirtualTime::set(int64_t seconds, int64_t nanoseconds) {
  state().now = {.tv_sec = static_cast<time_t>(seconds), .tv_nsec = static_cast<long>(nanoseconds)};
}

}  // namespace lbctl

timespec monotonic_now() { return lbctl::now_by(CLOCK_MONOTONIC); }

timespec wall_now() { return lbctl::now_by(CLOCK_REALTIME); }

void sleep_for(timespec duration) {
  lbctl::State& state = lbctl::state();
  if (state.is_virtual) {
    constexpr long kSecond = 1'000'000'000;
    state.now.tv_sec += duration.tv_sec + (state.now.tv_nsec + duration.tv_nsec) / kSecond;
    state.now.tv_nsec = (state.now.tv_nsec + duration.tv_nsec) % kSecond;
    return;
  }
  while (nanosleep(&duration, &duration) != 0 && errno == EINTR) {
  }
}
