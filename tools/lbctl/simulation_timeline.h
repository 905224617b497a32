// What a simulation did, as a picture: outcomes and states of the interfaces, routes in use, and
// for how much of the time each interface was active.
#pragma once

#include <array>
#include <cstdint>
#include <map>
#include <string>
#include <utility>
#include <vector>

#include "lbctl/simulation.h"
#include "lbctl/timeline_svg.h"

namespace lbctl {

// Counts outcomes in spans of equal length, few enough to be drawn however long the time is.
class OutcomeCounter {
 public:
  // `time` in seconds, not before `begin`, which stays the same.
  void add(int64_t time, int64_t begin, bool is_good);
  std::vector<OutcomeCount> counts(int64_t begin) const;

 private:
  static constexpr size_t kSpans = 1000;
  struct Count {
    uint64_t good = 0, bad = 0;
  };
  void widen();

  int64_t width_ = 1;  // seconds
  std::array<Count, kSpans> counts_{};
};

class SimulationTimeline : public SimulationObserver {
 public:
  // All interfaces of the configuration, which must stay.
  explicit SimulationTimeline(const LBConfig& config);

  void interface_changed(int64_t time, const LBInterface& interface, bool active) override;
  void routes_changed(int64_t time, const std::string& vrf, bool ipv6,
                      const std::string& body) override;
  bool wants_outcomes() const override { return true; }
  void outcome(int64_t time, const LBInterface& interface, bool is_good) override;

  // From one second to another; `title` above it.
  std::string draw(int64_t begin, int64_t end, const std::string& title) const;

 private:
  struct Change {
    int64_t time;
    size_t style;
  };
  struct Interface {
    const LBInterface* interface;
    std::vector<Change> changes;
    OutcomeCounter outcomes;
  };

  size_t style_of(const std::string& body);
  TimelineLane interface_lane(const Interface& interface, int64_t begin, int64_t end) const;

  std::map<const LBInterface*, size_t> places_;
  std::vector<Interface> interfaces_;
  std::map<std::pair<std::string, bool>, std::vector<Change>> routes_;  // by VRF, IPv6
  std::map<std::string, size_t> route_styles_;                          // by routes
  std::vector<TimelineStyle> styles_ = state_styles();
  int64_t begin_ = -1;  // of the outcomes
};

}  // namespace lbctl
