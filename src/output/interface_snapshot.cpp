#include "output/interface_snapshot.h"

InterfaceSnapshot take_snapshot(const LBInterface& interface) {
  InterfaceSnapshot snapshot{interface, interface.snapshot(), {}};
  for (const auto& [index, test] : interface.tests) snapshot.tests.push_back(test->report());
  return snapshot;
}
