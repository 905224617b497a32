#include "packets/default_route.h"

#include "packets/route_entry.h"

DefaultRouteRequest make_default_route_request(const Family& family) {
  DefaultRouteRequest request;
  request.header.nlmsg_len = sizeof(request);
  request.header.nlmsg_type = RTM_GETROUTE;
  request.header.nlmsg_flags = NLM_F_REQUEST | NLM_F_DUMP;
  request.route.rtm_family = static_cast<uint8_t>(family.address_family);
  request.route.rtm_table = RT_TABLE_MAIN;
  request.route.rtm_type = RTN_UNICAST;
  return request;
}

void append_default_routes(const NetlinkMessage& message, const Family& family,
                           std::vector<DefaultRoute>& routes) {
  const auto found = read_route_entry(message, family);
  if (!found || found->prefix_length != 0 || found->protocol == RTPROT_BIRD) return;
  for (const RouteNexthop& nexthop : found->nexthops) {
    if (nexthop.ifindex == 0 || nexthop.gateway.empty()) continue;
    routes.push_back({.ifindex = nexthop.ifindex,
                      .gateway = nexthop.gateway,
                      .metric = found->metric,
                      .preference = found->preference});
  }
}
