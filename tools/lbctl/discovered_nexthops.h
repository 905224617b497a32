// Next hops that this machine knows for a configuration: leases, peers of tunnels, kernel routes.
#pragma once

#include <functional>
#include <string>
#include <vector>

#include "config/lb_config.h"

namespace lbctl {

// Looks for the next hops of the VRF's and family's interfaces that `wanted` is true for, where and
// how the daemon does, and stores what is found in the model. What was not found, or could not be
// looked for, comes back as sentences. Nothing is asked where there is nothing to be found.
std::vector<std::string> discover_nexthops(LBConfig& config, const std::string& vrf, bool ipv6,
                                           const std::function<bool(const LBInterface&)>& wanted);

// Where the daemon looks for the interface's next hop: "the lease file /var/db/...". Empty where it
// is configured.
std::string place_of_nexthop(const LBInterface& interface);

}  // namespace lbctl
