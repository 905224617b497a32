// The daemon's health state and route decision on a virtual clock, fed from a trace.
//
// Structures: a Domain is what a worker of the daemon serves, one VRF and family; it has its
// interfaces and the routes that it wrote last. A Subject is what an outcome belongs to, a target
// of an interface.
//
// A cycle is a second: the cycle of second T takes every line up to T, settles the interfaces, then
// decides. What had no new input is left out, since nothing would come of it: an interface is
// looked at after outcomes of it and while a hold-down runs, routes are decided after a change of a
// state or a next hop. So the time without events costs nothing.
#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <unordered_map>
#include <utility>
#include <vector>

#include "config/lb_config.h"
#include "config/worker_context.h"
#include "lbctl/platform/virtual_time.h"
#include "lbctl/trace_line.h"
#include "lbctl/trace_test.h"
#include "routing/route_keeper.h"

namespace lbctl {

// Who is told what happens. Times are the cycles', in seconds of the trace.
class SimulationObserver {
 public:
  virtual ~SimulationObserver() = default;
  virtual void interface_changed(int64_t time, const LBInterface& interface, bool active) = 0;
  // `body`: all route lines of the VRF and family.
  virtual void routes_changed(int64_t time, const std::string& vrf, bool ipv6,
                              const std::string& body) = 0;
  // An outcome, before it is settled; `time` in nanoseconds. Only where wants_outcomes().
  virtual bool wants_outcomes() const { return false; }
  virtual void outcome(int64_t /*time*/, const LBInterface& /*interface*/, bool /*is_good*/) {}
};

class Simulation {
 public:
  // Starts as the daemon does: all interfaces inactive, no target settled. The tests of the
  // configuration are replaced; it and the observer must stay.
  Simulation(LBConfig& config, SimulationObserver& observer);
  ~Simulation();
  Simulation(const Simulation&) = delete;
  Simulation& operator=(const Simulation&) = delete;

  // Takes the next line and runs the cycles before it. A Failure, without the line's place, for a
  // time that falls (kExitUnreadable) and for an interface or target that the configuration does
  // not have (kExitUsage).
  void take(const TraceLine& line);

  // Runs the cycles up to the second `until`, or just the one that the last line belongs to.
  void finish(std::optional<int64_t> until);

  // The time of the first line in nanoseconds, 0 without one, and the second of the last cycle.
  int64_t first_time() const { return first_time_; }
  int64_t end() const { return end_; }

 private:
  struct Domain;
  struct Watched;
  struct Subject;
  struct TextHash {
    using is_transparent = void;
    size_t operator()(std::string_view text) const { return std::hash<std::string_view>()(text); }
  };

  void add_interfaces(LBConfig& config, bool ipv6);
  Watched& find_interface(std::string_view label);
  Subject& find_subject(const TraceLine& line);
  void take_nexthop(const TraceLine& line);
  void mark(Watched& watched);
  void advance(int64_t cycle);
  void run_cycle(int64_t cycle);
  void evaluate(Watched& watched);
  void decide(Domain& domain);
  int64_t next_held_cycle(int64_t last) const;

  LBConfig& config_;
  SimulationObserver& observer_;
  const bool wants_outcomes_;
  VirtualTime time_{0};
  std::map<std::pair<std::string, bool>, std::unique_ptr<Domain>> domains_;  // by VRF, IPv6
  std::vector<std::unique_ptr<Watched>> watched_;
  std::unordered_map<std::string, std::unique_ptr<Subject>, TextHash, std::equal_to<>> subjects_;
  std::vector<Domain*> due_;  // those with something to settle or decide
  bool has_begun_ = false;
  int64_t cycle_ = 0;      // the one that lines are taken for
  int64_t cycle_end_ = 0;  // the same in nanoseconds
  int64_t first_time_ = 0;
  int64_t last_time_ = 0;
  int64_t end_ = 0;
};

}  // namespace lbctl
