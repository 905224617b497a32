#include "routing/kernel_routes.h"

#include <net/if.h>

#include <algorithm>
#include <cerrno>

#include "config/log.h"
#include "packets/packet_reader.h"
#include "routing/interface_health.h"
#include "routing/route_dump.h"

namespace {

Dump<DefaultRoute> dump_default_routes(const Family& family) {
  const DefaultRouteRequest request = make_default_route_request(family);
  auto dump = dump_entries<DefaultRoute>(bytes_of(request),
                                         [&](const NetlinkMessage& message, auto& routes) {
                                           append_default_routes(message, family, routes);
                                         });
  // The main table of a namespace comes into being with its first route.
  if (dump.error == ENOENT) return {};
  return dump;
}

bool is_better(const DefaultRoute& route, const DefaultRoute& other) {
  if (route.metric != other.metric) return route.metric < other.metric;
  return route.preference > other.preference;
}

void resolve(LBInterface& interface, const std::vector<DefaultRoute>& routes) {
  const unsigned int ifindex = if_nametoindex(interface.origin.c_str());
  const std::string gateway = ifindex == 0 ? std::string() : best_gateway(routes, ifindex);
  bool missing = false;
  {
    MutexLock lock(interface.mutex);
    std::string& found = interface.state.nexthop_address;
    if (!gateway.empty()) found = gateway;
    missing = found.empty();
  }
  if (missing) {
    LB_WARNING("Failed to get default route from the kernel on interface %s",
               device_name(interface.origin).c_str());
  }
}

}  // namespace

std::string best_gateway(const std::vector<DefaultRoute>& routes, unsigned int ifindex) {
  const DefaultRoute* best = nullptr;
  for (const DefaultRoute& route : routes) {
    if (route.ifindex != ifindex) continue;
    if (best == nullptr || is_better(route, *best)) best = &route;
  }
  return best == nullptr ? std::string() : best->gateway;
}

void resolve_kernel_nexthops(LBConfig& config, const LBWorkerContext& worker) {
  InterfaceMap& interfaces = config.interfaces_of(worker.ipv6);
  const auto is_own = [&worker](const auto& entry) {
    return entry.second.nexthop == "kernel" && entry.second.vrf == worker.vrf;
  };
  if (std::none_of(interfaces.begin(), interfaces.end(), is_own)) return;

  const Dump<DefaultRoute> dump = dump_default_routes(worker.family());
  if (dump.error != 0) {
    LB_WARNING("Failed to read the kernel's routes, errno = %d", dump.error);
    return;
  }
  for (auto& entry : interfaces) {
    if (is_own(entry)) resolve(entry.second, dump.entries);
  }
}
