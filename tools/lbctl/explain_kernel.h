// Whether a route that the routing daemon was given is in force.
#pragma once

#include <string>

#include "lbctl/explain_situation.h"
#include "routing/static_routes.h"

namespace lbctl {

// `file_text` is what the route stands in. True when the kernel uses the route, or did not say.
bool explain_kernel(const Situation& situation, const RuleDump& rule, const StaticRoute& route,
                    const std::string& file_text, Explanation& explanation);

}  // namespace lbctl
