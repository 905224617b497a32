// The events of a simulation, as text and as a document.
#pragma once

#include <functional>
#include <string>
#include <string_view>
#include <vector>

#include <nlohmann/json.hpp>

#include "lbctl/print.h"
#include "lbctl/simulation.h"

namespace lbctl {

// Hands a line or more to `print` with each event.
class SimulationText : public SimulationObserver {
 public:
  SimulationText(std::function<void(std::string_view)> print, bool with_colour)
      : print_(std::move(print)), with_colour_(with_colour) {}

  void interface_changed(int64_t time, const LBInterface& interface, bool active) override;
  void routes_changed(int64_t time, const std::string& vrf, bool ipv6,
                      const std::string& body) override;

 private:
  const std::function<void(std::string_view)> print_;
  const bool with_colour_;
};

// Collects the events for "wan_lb/simulate/1".
class SimulationDocument : public SimulationObserver {
 public:
  void interface_changed(int64_t time, const LBInterface& interface, bool active) override;
  void routes_changed(int64_t time, const std::string& vrf, bool ipv6,
                      const std::string& body) override;
  Json take();

 private:
  Json events_ = Json::array();
};

// Tells several.
class SimulationAudience : public SimulationObserver {
 public:
  void add(SimulationObserver& observer) { observers_.push_back(&observer); }

  void interface_changed(int64_t time, const LBInterface& interface, bool active) override;
  void routes_changed(int64_t time, const std::string& vrf, bool ipv6,
                      const std::string& body) override;
  bool wants_outcomes() const override;
  void outcome(int64_t time, const LBInterface& interface, bool is_good) override;

 private:
  std::vector<SimulationObserver*> observers_;
};

}  // namespace lbctl
