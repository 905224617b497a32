#include "config/lb_config.h"

LBInterface::LBInterface(const LBInterface& other)
    : success_ct(other.success_ct),
      failure_ct(other.failure_ct),
      nexthop(other.nexthop),
      name(other.name),
      origin(other.origin),
      ipv6(other.ipv6),
      check_all(other.check_all),
      source_address(other.source_address),
      vrf(other.vrf),
      tests(other.tests),
      state(other.snapshot()) {}

InterfaceState LBInterface::snapshot() const {
  MutexLock lock(mutex);
  return state;
}

std::string LBInterface::gateway() const {
  if (!discovers_nexthop()) return nexthop;
  MutexLock lock(mutex);
  return state.nexthop_address;
}

LBConfig::LBConfig(const LBConfig& other) { replace(other); }

void LBConfig::replace(const LBConfig& other) {
  if (this == &other) return;
  rules = other.rules;
  interfaces.clear();
  interfaces.insert(other.interfaces.begin(), other.interfaces.end());
  interfaces6.clear();
  interfaces6.insert(other.interfaces6.begin(), other.interfaces6.end());

  TextByVrf written;
  TextByVrf written6;
  std::map<std::string, TextByTarget> nexthops;
  {
    MutexLock lock(other.written_mutex);
    written = other.routes_written;
    written6 = other.routes_written6;
    nexthops = other.failover_nexthops;
  }
  MutexLock lock(written_mutex);
  routes_written = std::move(written);
  routes_written6 = std::move(written6);
  failover_nexthops = std::move(nexthops);
}
