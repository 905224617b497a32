// Short ways to put a configuration model together.
#pragma once

#include <string>

#include "config/lb_config.h"
#include "config/worker_context.h"

inline LBInterface& add_interface(LBConfig& config, const std::string& name, bool ipv6 = false) {
  InterfaceMap& interfaces = config.interfaces_of(ipv6);
  return interfaces.try_emplace(name, name, ipv6).first->second;
}

// Runs `edit` on the interface's state, under its lock.
template <typename Edit>
void edit_state(LBInterface& interface, Edit edit) {
  MutexLock lock(interface.mutex);
  edit(interface.state);
}

inline LBInterface& add_active_interface(LBConfig& config, const std::string& name,
                                         const std::string& nexthop, bool ipv6 = false) {
  LBInterface& interface = add_interface(config, name, ipv6);
  interface.nexthop = nexthop;
  edit_state(interface, [](InterfaceState& state) { state.active = true; });
  return interface;
}

inline LBWorkerContext worker_of(bool ipv6, const std::string& vrf = kDefaultNamespace) {
  LBWorkerContext worker;
  worker.ipv6 = ipv6;
  worker.vrf = vrf;
  return worker;
}
