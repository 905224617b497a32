// Why an interface is in the state that it is in.
#pragma once

#include "lbctl/explain_view.h"

namespace lbctl {

// Of a record of the view's dumps.
Explanation explain_interface(const View& view, const InterfaceDump& interface);

}  // namespace lbctl
