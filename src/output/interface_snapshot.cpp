#include "output/interface_snapshot.h"

std::vector<InterfaceSnapshot> take_snapshots(const InterfaceMap& interfaces) {
  std::vector<InterfaceSnapshot> snapshots;
  snapshots.reserve(interfaces.size());
  for (const auto& [name, interface] : interfaces) snapshots.push_back(take_snapshot(interface));
  return snapshots;
}

InterfaceSnapshot take_snapshot(const LBInterface& interface) {
  InterfaceSnapshot snapshot{interface, interface.snapshot(), {}};
  for (const auto& [index, test] : interface.tests) snapshot.tests.push_back(test->report());
  return snapshot;
}
