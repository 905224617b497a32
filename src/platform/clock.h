// Time, as a contract: unit tests link a virtual clock in its place.
#pragma once

#include <ctime>

// The monotonic clock (CLOCK_MONOTONIC): probe timing.
timespec monotonic_now();

// The wall clock (CLOCK_REALTIME): states and reports.
timespec wall_now();

// Sleeps for at least `duration`, also when signals interrupt.
void sleep_for(timespec duration);

// Whole milliseconds of the time from `from` to `to`.
inline long milliseconds_between(timespec from, timespec to) {
  return (to.tv_sec - from.tv_sec) * 1000 + (to.tv_nsec - from.tv_nsec) / 1'000'000;
}
