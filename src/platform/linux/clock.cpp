#include "platform/clock.h"

#include <cerrno>

namespace {

// Cannot fail for these two clocks on Linux.
timespec read_clock(clockid_t clock) {
  timespec now{};
  clock_gettime(clock, &now);
  return now;
}

}  // namespace

timespec monotonic_now() { return read_clock(CLOCK_MONOTONIC); }

timespec wall_now() { return read_clock(CLOCK_REALTIME); }

void sleep_for(timespec duration) {
  // An absolute deadline does not drift when signals interrupt.
  timespec deadline = monotonic_now();
  deadline.tv_sec += duration.tv_sec;
  deadline.tv_nsec += duration.tv_nsec;
  if (deadline.tv_nsec >= 1'000'000'000) {
    deadline.tv_nsec -= 1'000'000'000;
    ++deadline.tv_sec;
  }
  while (clock_nanosleep(CLOCK_MONOTONIC, TIMER_ABSTIME, &deadline, nullptr) == EINTR) {
  }
}
