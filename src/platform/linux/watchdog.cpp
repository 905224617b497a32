// The service manager as the watchdog: sd_notify(3). Silent where there is no service manager.
#include "platform/watchdog.h"

#include <systemd/sd-daemon.h>
#include <unistd.h>

#include <atomic>
#include <cstdint>
#include <cstdlib>
#include <string>

#include "platform/clock.h"
#include "platform/linux/liveness.h"

namespace {

constexpr pid_t kCallingProcess = 1;

// The process that the service manager started; a daemon's child inherits the value.
const pid_t kStartedProcess = getpid();

Liveness& liveness() {
  static auto* const all = new Liveness;
  return *all;
}

// Thread ids are used again after a thread's end; these numbers are not.
uint64_t calling_thread() {
  static std::atomic<uint64_t> next{0};
  thread_local const uint64_t number = next.fetch_add(1);
  return number;
}

uint64_t monotonic_microseconds() {
  const timespec now = monotonic_now();
  return static_cast<uint64_t>(now.tv_sec) * 1'000'000 + static_cast<uint64_t>(now.tv_nsec) / 1000;
}

}  // namespace

void send_signal_live(pid_t pid, int alive) {
  if (alive == 0) {
    sd_notify(0, "STOPPING=1");
    return;
  }
  const pid_t daemon = pid == kCallingProcess ? getpid() : pid;
  sd_notifyf(0, "MAINPID=%ld\nREADY=1", static_cast<long>(daemon));
}

void set_timeout(WatchdogWord* timeout) {
  // The service manager addresses the watchdog to the process that it started. When that one left
  // its work to a child, the child is meant.
  const char* const addressee = getenv("WATCHDOG_PID");
  if (getpid() != kStartedProcess && addressee != nullptr &&
      std::to_string(kStartedProcess) == addressee) {
    setenv("WATCHDOG_PID", std::to_string(getpid()).c_str(), 1);
  }
  uint64_t microseconds = 0;
  *timeout = sd_watchdog_enabled(0, &microseconds) > 0 ? microseconds : 0;
}

void send_and_shift_timeout(WatchdogWord* timeout, WatchdogWord* last, int alive) {
  const uint64_t now = monotonic_microseconds();
  // The word is one for all threads.
  std::atomic_ref<WatchdogWord>(*last).store(now);
  liveness().report(calling_thread(), now, alive != 0);
  if (*timeout != 0 && liveness().all_alive(now, *timeout)) sd_notify(0, "WATCHDOG=1");
}
