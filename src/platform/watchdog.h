// The device's watchdog: it restarts the daemon when the reports stop coming.
#pragma once

#include <sys/types.h>

extern "C" {

// A word that belongs to the watchdog library; the daemon only keeps it and passes it on.
using WatchdogWord = unsigned long;

// Tells the watchdog which process is the daemon and whether it is alive. A pid of 1 stands for the
// calling process (the daemon itself is never pid 1 to its watchdog).
void send_signal_live(pid_t pid, int alive);

// Learns the time-out that is in force and keeps it in `*timeout` (microseconds on stock Linux, 0
// when no watchdog is set). Called once, before the first report.
void set_timeout(WatchdogWord* timeout);

// One thread's report that it is alive, or with `alive` 0 that it is not; `*last` takes the time of
// this report. The watchdog is fed only while every thread that has ever reported has been alive
// within the time-out. Any thread.
void send_and_shift_timeout(WatchdogWord* timeout, WatchdogWord* last, int alive);

}  // extern "C"
