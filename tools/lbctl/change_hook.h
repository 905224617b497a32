// A command that is run for each change of an interface's state.
#pragma once

#include <sys/types.h>

#include <cstdint>
#include <ctime>
#include <deque>
#include <optional>
#include <string>
#include <vector>

#include "lbctl/dumps.h"

namespace lbctl {

struct InterfaceChange {
  std::string interface;
  bool ipv6 = false;
  std::string vrf;
  bool active = false;
  std::string nexthop;  // empty while there is none
  std::time_t time = 0;
};

// The change as the command's environment has it: "WAN_LB_INTERFACE=wan1" and so on.
std::vector<std::string> environment_of(const InterfaceChange& change);

// Finds the changes between one dump of a family and the next. What is there at first, or new
// later, has not changed. A daemon that was started anew has every interface failed until its tests
// have settled: it keeps the state that it had until then.
class ChangeFinder {
 public:
  std::vector<InterfaceChange> take(const std::vector<InterfaceDump>& interfaces, bool ipv6,
                                    std::time_t now);

 private:
  std::vector<InterfaceDump> before_[2];
};

// Runs a shell command for each change, one at a time and in their order, each in a process group
// of its own.
class ChangeHook {
 public:
  // `limit` is how many seconds a run may take; it is killed then, with all that it started.
  ChangeHook(std::string command, int limit) : command_(std::move(command)), limit_(limit) {}
  ~ChangeHook();
  ChangeHook(const ChangeHook&) = delete;
  ChangeHook& operator=(const ChangeHook&) = delete;

  void add(InterfaceChange change) { waiting_.push_back(std::move(change)); }

  // Sees to the run that goes on, and starts the next one when there is none. Does not wait. A run
  // that failed or took too long is complained of.
  void attend(const timespec& now);

  bool is_idle() const { return !running_ && waiting_.empty(); }

 private:
  struct Run {
    pid_t pid;
    timespec started;
    InterfaceChange change;
    bool killed = false;
  };

  void start(InterfaceChange change, const timespec& now);
  bool has_ended();

  const std::string command_;
  const int limit_;
  std::deque<InterfaceChange> waiting_;
  std::optional<Run> running_;
};

}  // namespace lbctl
