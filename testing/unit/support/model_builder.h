// Short ways to put a configuration model together.
#pragma once

#include <string>

#include "config/lb_config.h"
#include "config/worker_context.h"

inline LBInterface& add_interface(LBConfig& config, const std::string& name, bool ipv6 = false) {
  InterfaceMap& interfaces = config.interfaces_of(ipv6);
  return interfaces.try_emplace(name, name, ipv6).first->second;
}

// With a next hop: an address, "dhcp" or "tunnel".
inline LBInterface& add_interface_via(LBConfig& config, const std::string& name,
                                      const std::string& nexthop, bool ipv6 = false) {
  LBInterface& interface = add_interface(config, name, ipv6);
  interface.nexthop = nexthop;
  return interface;
}

// Runs `edit` on the interface's state, under its lock.
template <typename Edit>
void edit_state(LBInterface& interface, Edit edit) {
  MutexLock lock(interface.mutex);
  edit(interface.state);
}

inline void set_active(LBInterface& interface, bool active) {
  edit_state(interface, [active](InterfaceState& state) { state.active = active; });
}

// The next hop that was found at run time.
inline void set_found(LBInterface& interface, const std::string& address) {
  edit_state(interface, [&](InterfaceState& state) { state.nexthop_address = address; });
}

// The next hop that was found.
inline std::string found(const LBInterface& interface) {
  return interface.snapshot().nexthop_address;
}

inline LBInterface& add_active_interface(LBConfig& config, const std::string& name,
                                         const std::string& nexthop, bool ipv6 = false) {
  LBInterface& interface = add_interface_via(config, name, nexthop, ipv6);
  set_active(interface, true);
  return interface;
}

inline LBWorkerContext worker_of(bool ipv6, const std::string& vrf = kDefaultNamespace) {
  LBWorkerContext worker;
  worker.ipv6 = ipv6;
  worker.vrf = vrf;
  return worker;
}
