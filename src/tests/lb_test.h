// The base classes of the health tests, one per family.
#pragma once

#include <type_traits>

#include "tests/probe_base.h"

class LBTest : public ProbeTest<Ipv4> {};

class LBTest6 : public ProbeTest<Ipv6> {};

template <class Family>
using FamilyTest = std::conditional_t<Family::kIpv6, LBTest6, LBTest>;

// Calls `visit` with every test of the interface's own family, in index order.
template <class Visitor>
void for_each_test(const LBInterface& interface, Visitor visit) {
  if (interface.ipv6) {
    for (const auto& [index, test] : interface.tests6) visit(static_cast<HealthTest&>(*test));
  } else {
    for (const auto& [index, test] : interface.tests) visit(static_cast<HealthTest&>(*test));
  }
}
