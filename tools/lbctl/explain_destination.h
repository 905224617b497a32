// Why a destination has the next hops that it has.
#pragma once

#include <optional>
#include <string>
#include <vector>

#include "lbctl/explain_situation.h"

namespace lbctl {

struct Destination {
  const RuleDump* rule = nullptr;
  const RouteDump* route = nullptr;
};

// The destinations of all rules, or those that `prefix` ("10.0.0.0/8", "default", an address)
// names. Where none is exactly that one, those that cover it most closely; none where the text is
// no prefix, or no rule routes it.
std::vector<Destination> all_destinations(const Dumps& dumps);
std::vector<Destination> find_destinations(const Dumps& dumps, const std::string& prefix);

Explanation explain_destination(const Situation& situation, const Destination& destination);

}  // namespace lbctl
