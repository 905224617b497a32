// A route as the kernel tells it in a dump (RTM_NEWROUTE, rtnetlink(7)).
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "packets/family.h"
#include "packets/netlink_dump.h"

// Addresses are in canonical text, without a scope.
struct RouteNexthop {
  unsigned int ifindex = 0;
  std::string gateway;  // empty: none of the route's family
  std::string via;      // a gateway of the other family; empty: none
  unsigned int weight = 1;
  bool is_dead = false;  // its link is down
};

struct RouteEntry {
  std::string destination;  // an address, with `prefix_length`
  uint8_t prefix_length = 0;
  uint8_t protocol = 0;  // who has put it there: RTPROT_*
  uint32_t metric = 0;
  int preference = 0;  // of the router that advertised it (RFC 4191): 1 high, 0 medium, -1 low
  std::vector<RouteNexthop> nexthops;
};

// The route that `message` tells; nothing when it is no unicast route of the family in the main
// table, or what the kernel remembers of one destination. Nothing beyond the message is read.
std::optional<RouteEntry> read_route_entry(const NetlinkMessage& message, const Family& family);
