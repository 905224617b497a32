// What the probes of an interface found, and what would change its state.
#pragma once

#include <string>

#include "lbctl/explain_situation.h"

namespace lbctl {

// A sentence per test. True when one of them was probed and is not reached.
bool explain_tests(const Situation& situation, const InterfaceDump& interface,
                   Explanation& explanation);

// What would bring a failed interface back.
void explain_way_back(const Situation& situation, const InterfaceDump& interface,
                      Explanation& explanation);

// A target that is not reached, else the next hop.
std::string failed_target(const InterfaceDump& interface);

}  // namespace lbctl
