// Time, as a contract: unit tests link a virtual clock in its place.
#pragma once

#include <ctime>

// The monotonic clock (CLOCK_MONOTONIC): probe timing.
timespec monotonic_now();

// The wall clock (CLOCK_REALTIME): states and reports.
timespec wall_now();

// Sleeps for at least `duration`, also when signals interrupt.
void sleep_for(timespec duration);
