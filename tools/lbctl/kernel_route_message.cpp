#include "lbctl/kernel_route_message.h"

#include <fmt/format.h>

#include "packets/route_entry.h"

namespace lbctl {

void append_kernel_route(const NetlinkMessage& message, const Family& family,
                         const DeviceName& name_of, std::vector<KernelRoute>& routes) {
  const auto found = read_route_entry(message, family);
  if (!found) return;
  KernelRoute& route = routes.emplace_back();
  route.destination = fmt::format("{}/{}", found->destination, found->prefix_length);
  route.metric = found->metric;
  route.protocol = found->protocol;
  for (const RouteNexthop& nexthop : found->nexthops) {
    if (nexthop.is_dead) continue;
    route.nexthops.push_back({.address = nexthop.via.empty() ? nexthop.gateway : nexthop.via,
                              .device = name_of(nexthop.ifindex),
                              .weight = static_cast<int>(nexthop.weight)});
  }
}

}  // namespace lbctl
