// From the dumps of a running daemon to a trace: what happened between one dump and the next.
//
// A dump shows counts of equal outcomes in a row up to a threshold. Every change of them is told as
// the outcomes that lead from the old counts to the new ones; what changes nothing in a dump
// (further outcomes at the threshold) is not there to be seen. The first dump is told as outcomes
// that lead to its state, and so is a restart of the daemon.
#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "lbctl/dumps.h"

namespace lbctl {

class Recorder {
 public:
  // The trace's lines for a dump of all interfaces of a family, which was there at `time`
  // (nanoseconds). Empty when it shows nothing new.
  std::string take(const std::vector<InterfaceDump>& interfaces, bool ipv6, int64_t time);

 private:
  struct Counts {
    int32_t successes = 0;
    int32_t failures = 0;
    std::optional<TestDump::Measurement> measurement;
  };
  struct Known {
    bool active = false;
    std::string nexthop;
    std::vector<std::string> targets;      // of the tests, in order
    std::map<std::string, Counts> counts;  // by target
  };

  class Lines;

  static void begin_nexthop(const InterfaceDump& interface, Lines& lines);
  static void begin(const InterfaceDump& interface, Lines& lines);
  static void tell_missed(const InterfaceDump& interface, const TestDump& test, Known& known,
                          Lines& lines);
  static void follow_targets(const InterfaceDump& interface, Known& known);
  static void tell_test(const InterfaceDump& interface, const TestDump& test,
                        const std::optional<Counts>& before, Lines& lines);

  std::map<std::pair<std::string, bool>, Known> known_;  // by name, IPv6
};

}  // namespace lbctl
