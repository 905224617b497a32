// What a worker thread hands to every operation that it calls.
#pragma once

#include <string>

#include "packets/family.h"

class LBArp;
class LBDaemon;
class LBNeighbor;

// What a worker may spend in one cycle on waiting for its receivers to catch up.
struct CatchUpBudget {
  int milliseconds = 200;
};

// One per worker thread, made by the VRF thread and fixed afterwards. Exactly one of the two
// probers is set: `arp` for an IPv4 worker, `neighbor` for an IPv6 worker; neither is owned.
struct LBWorkerContext {
  LBDaemon* daemon = nullptr;
  LBArp* arp = nullptr;
  LBNeighbor* neighbor = nullptr;
  bool ipv6 = false;  // of which family the worker is
  std::string vrf;

  // Of the present cycle; null: a test that catches up has a budget of its own.
  CatchUpBudget* catch_up = nullptr;

  const Family& family() const { return family_of(ipv6); }
};
