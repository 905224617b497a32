// The health state of an interface: results are debounced per target, the interface's state follows
// from the settled results once per cycle.
//
// Results are recorded and states settled on the interface's worker; the state is guarded by the
// interface's lock because workers of other VRFs read it for reports and clear its change mark.
#pragma once

#include <cstdint>
#include <map>
#include <string>

#include "config/lb_config.h"
#include "config/worker_context.h"

// Counts one outcome of `target` (-1 failure, any other value success) and settles the target's
// result when a threshold is reached. No effect on the interface's state.
void record_result(LBInterface& interface, int32_t result, const std::string& target);

// Settles the interface ACTIVE or FAILED from its targets' results and logs a change. Only for
// interfaces of the worker's VRF.
void evaluate_state(LBInterface& interface, const LBWorkerContext& worker);

// True once the interface was found healthy, or every one of its targets has had as many equal
// outcomes in a row as settle it.
bool has_settled(const LBInterface& interface);

// Marks every interface of the worker's family, of all VRFs, as unchanged.
void clear_state_changed(LBConfig& config, const LBWorkerContext& worker);

// The interfaces of the worker's family that are marked as changed, by name: "ACTIVE" or "FAILED".
// Stamps each of them with the present time and logs it. Not called by the daemon itself: it is for
// whoever links the library.
std::map<std::string, std::string> changed_interfaces(LBConfig& config,
                                                      const LBWorkerContext& worker);

// Read access by name, in the worker's family; an unknown name gets the default that stands behind
// each. The first two are not called by the daemon itself: they are for whoever links the library.
bool interface_active(const LBConfig& config, const std::string& name, bool ipv6);      // false
std::string interface_vrf(const LBConfig& config, const std::string& name, bool ipv6);  // "default"
std::string interface_origin(const LBConfig& config, const std::string& name, bool ipv6);  // ""

// Consecutive results of a target, 0 for an unknown one.
int32_t success_count(const InterfaceState& state, const std::string& target);
int32_t failure_count(const InterfaceState& state, const std::string& target);

// The device's name for the interface's Linux name, or "unknown interface".
std::string device_name(const std::string& linux_name);
