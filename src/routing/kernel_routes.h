// Next hops from the kernel's own default routes: what a DHCP client, a network manager or a router
// advertisement put there.
#pragma once

#include <string>
#include <vector>

#include "config/lb_config.h"
#include "config/worker_context.h"
#include "packets/default_route.h"

// The gateway by the interface with index `ifindex`: that of the lowest metric, of equals that of
// the router that is to be preferred, then the first. Empty when there is none.
std::string best_gateway(const std::vector<DefaultRoute>& routes, unsigned int ifindex);

// Finds the next hop of every interface of the worker's VRF and family with the next hop "kernel";
// the kernel is asked once, and only where there is such an interface. The last one that was found
// stays while there is none; a warning is logged while there has been none. A dump that fails is
// logged and changes nothing. On the worker, in its network namespace.
void resolve_kernel_nexthops(LBConfig& config, const LBWorkerContext& worker);
