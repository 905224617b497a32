// Why an interface is in the state that it is in.
#pragma once

#include "lbctl/explain_situation.h"

namespace lbctl {

// Of a record of the situation's dumps.
Explanation explain_interface(const Situation& situation, const InterfaceDump& interface);

}  // namespace lbctl
