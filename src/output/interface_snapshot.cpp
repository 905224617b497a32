#include "output/interface_snapshot.h"

#include "tests/lb_test.h"

InterfaceSnapshot take_snapshot(const LBInterface& interface) {
  InterfaceSnapshot snapshot{interface, interface.snapshot(), {}};
  for_each_test(interface,
                [&snapshot](const HealthTest& test) { snapshot.tests.push_back(test.report()); });
  return snapshot;
}
