// The rest of the device's libraries, kept in memory for tests: watchdog, crash reports, network
// namespaces, interface names.
//
// Every test starts with no call noted, namespaces that may be entered and stay the same, and
// interfaces whose device names are their Linux names.
#pragma once

#include <string>
#include <vector>

#include "platform/watchdog.h"

namespace recorded_device {

// The calls since the test started, oldest first, each with its arguments:
//   "backtrace_set_program_name lb", "send_signal_live 1 1", "lh_netns_set red",
//   "netns_was_replaced red", "set_timeout", "send_and_shift_timeout 1"
// Any thread.
std::vector<std::string> calls();

// The words of the last set_timeout and send_and_shift_timeout.
struct Words {
  WatchdogWord* learned = nullptr;
  WatchdogWord* timeout = nullptr;
  WatchdogWord* last = nullptr;
};
Words words();

// What lh_netns_set answers.
void set_netns_result(int result);

// What netns_was_replaced answers.
void set_netns_replaced(bool replaced);

// Names an interface; an empty name is the answer for one that the device does not know.
void name_interface(const std::string& linux_name, const std::string& device_name);

}  // namespace recorded_device
