// What the kernel knows of an interface's next hop.
#pragma once

#include <string>

#include "lbctl/explain_situation.h"

namespace lbctl {

// For a device with link-layer addresses; nothing without a next hop.
void explain_neighbor(const Situation& situation, const InterfaceDump& interface,
                      const std::string& device, Explanation& explanation);

}  // namespace lbctl
