// Next hops that are found at run time: the router of a DHCP lease, the peer of a tunnel. (Those of
// the kernel's routes are in kernel_routes.h.)
//
// Leases and peers are looked up under the interface's configured name and read as the device's
// clients write them; with "discovery linux" under its Linux name, and as stock clients do.
//
// Runs on the worker, for the worker's family; the result goes to
// InterfaceState::nexthop_address.
#pragma once

#include "config/lb_config.h"
#include "config/worker_context.h"

// Reads the lease file of every interface with the next hop "dhcp" in name order: of all VRFs, with
// "discovery linux" of the worker's own. An address found earlier survives a file that is missing
// or names no router; a warning is logged while there is no address at all.
void resolve_dhcp_nexthops(LBConfig& config, const LBWorkerContext& worker);

// Looks up the point-to-point peer of every interface of the worker's VRF with the next hop
// "tunnel" in the calling thread's network namespace; the address becomes empty when there is none.
void resolve_tunnel_nexthops(LBConfig& config, const LBWorkerContext& worker);
