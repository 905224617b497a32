// The device of the measurements: nobody reads the log, the clock stands still, nothing sleeps, and
// the routing daemon's files are in the scratch directory.
#include "platform/clock.h"
#include "platform/places.h"
#include "platform/syslog.h"
#include "support/scratch.h"

int SYSLOG_flag_get(int /*facility*/, int level) { return level < 3 ? 1 : 0; }

void SYSLOG_message(int /*priority*/, const char* /*format*/, ...) {}

timespec monotonic_now() { return {.tv_sec = 1000, .tv_nsec = 0}; }

timespec wall_now() { return {.tv_sec = kWallClock, .tv_nsec = 0}; }

void sleep_for(timespec /*duration*/) {}

std::string route_file_path(const std::string& vrf, bool ipv6) {
  return scratch_path(vrf + (ipv6 ? ".routes6" : ".routes"));
}

std::string routing_pid_path(const std::string& vrf) { return scratch_path(vrf + ".pid"); }

std::string lease_file_path(const std::string& interface_name, bool ipv6) {
  return scratch_path(interface_name + (ipv6 ? ".leases6" : ".leases"));
}
