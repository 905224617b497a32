// What a worker thread hands to every operation that it calls.
#pragma once

#include <string>

#include "packets/family.h"

class LBArp;
class LBDaemon;
class LBNeighbor;

// One per worker thread, made by the VRF thread and fixed afterwards. Exactly one of the two
// probers is set: `arp` for an IPv4 worker, `neighbor` for an IPv6 worker; neither is owned.
struct LBWorkerContext {
  LBDaemon* daemon = nullptr;
  LBArp* arp = nullptr;
  LBNeighbor* neighbor = nullptr;
  bool ipv6 = false;  // of which family the worker is
  std::string vrf;

  const Family& family() const { return family_of(ipv6); }
};
