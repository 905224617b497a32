// An interface as the reports show it: its settings and a copy of everything that changes.
#pragma once

#include <string>
#include <vector>

#include "config/health_test.h"
#include "config/lb_config.h"

struct InterfaceSnapshot {
  const LBInterface& settings;  // only the fields that are fixed while the threads run
  InterfaceState state;
  std::vector<TestReport> tests;  // in index order

  // The next hop in force; empty while it is still to be found.
  const std::string& nexthop() const {
    return settings.discovers_nexthop() ? state.nexthop_address : settings.nexthop;
  }
};

// Of all interfaces, in the map's order. Ages in reports count from a time that is read after this,
// so that none is negative.
std::vector<InterfaceSnapshot> take_snapshots(const InterfaceMap& interfaces);

// Takes the interface's and its tests' locks, one after the other and briefly. Any thread.
InterfaceSnapshot take_snapshot(const LBInterface& interface);
