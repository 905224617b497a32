// What the log is told of a probe that could not be sent, in the words of each type of test. Any
// thread.
#pragma once

#include "packets/family.h"
#include "tests/echo_path.h"

// The messages that differ between the tests: their beginnings, and how serious a target is taken
// whose name has no address. Constant objects: tests keep references to them.
struct PathWords {
  const char* unresolved;
  bool unresolved_is_error;  // else a warning
  const char* not_bound;
  const char* no_hardware_address;
  const char* source_absent;
};

inline constexpr PathWords kEchoWords{
    .unresolved = "wan_lb: error in resolving configured hostname",
    .unresolved_is_error = true,
    .not_bound = "wan_lb: failure to bind to interface",
    .no_hardware_address = "ioctl() failed to get source MAC address",
    .source_absent = "address",
};

inline constexpr PathWords kEcho6Words{
    .unresolved = "Error in resolving configured hostname",
    .unresolved_is_error = false,
    .not_bound = "wan_lb: failure to bind to interface (ipv6)",
    .no_hardware_address = "ioctl() failed to get source MAC adds",
    .source_absent = nullptr,  // IPv6 sources are not looked for
};

inline constexpr PathWords kBurstWords{
    .unresolved = "Error in resolving configured hostname",
    .unresolved_is_error = false,
    .not_bound = "Failure to bind to interface",
    .no_hardware_address = "ioctl() failed to get source MAC address",
    .source_absent = "Address",
};

// Logs why a path is not ready; nothing for one that is.
void log_path_failure(const PathResult& result, const PathWords& words);

// Logs the errno value of a failed probe; nothing for 0, nor for an unreachable network, which is
// expected while a link is down and not worth a line.
void log_send_error(const Family& family, int error);
