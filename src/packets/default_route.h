// The default routes that the kernel tells in a dump (RTM_NEWROUTE, rtnetlink(7)).
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "packets/family.h"
#include "packets/netlink_dump.h"

struct DefaultRouteRequest {
  nlmsghdr header{};
  rtmsg route{};
};

static_assert(sizeof(rtmsg) == 12);
static_assert(sizeof(DefaultRouteRequest) == 28);

// Asks for the unicast routes of the main table. A kernel that does not filter (no
// NETLINK_GET_STRICT_CHK) sends all.
DefaultRouteRequest make_default_route_request(const Family& family);

// One next hop of a default route.
struct DefaultRoute {
  unsigned int ifindex = 0;
  std::string gateway;  // canonical text, without a scope
  uint32_t metric = 0;
  int preference = 0;  // of the router that advertised it (RFC 4191): 1 high, 0 medium, -1 low
};

// Appends the next hops of the route that `message` tells, if it is a default route of the family
// in the main table that a program other than BIRD, or the kernel, put there. A next hop without a
// gateway of the family is left out.
void append_default_routes(const NetlinkMessage& message, const Family& family,
                           std::vector<DefaultRoute>& routes);
