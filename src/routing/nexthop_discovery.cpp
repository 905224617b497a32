// Files and interface addresses are read without any lock; an interface's lock is taken only to
// store what was found.
#include "routing/nexthop_discovery.h"

#include <ifaddrs.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <memory>
#include <optional>
#include <string_view>

#include "config/log.h"
#include "packets/family.h"
#include "platform/clock.h"
#include "platform/places.h"
#include "routing/interface_health.h"
#include "routing/isc_leases.h"
#include "routing/lease_file.h"

namespace {

using AddressList = std::unique_ptr<ifaddrs, decltype(&freeifaddrs)>;

// The peer's address proper (in_addr or in6_addr) in the first entry that has one of this family.
const void* find_peer(const ifaddrs* entries, const std::string& name, int family) {
  for (const ifaddrs* entry = entries; entry != nullptr; entry = entry->ifa_next) {
    const sockaddr* peer = entry->ifa_dstaddr;
    if (name != entry->ifa_name || peer == nullptr || peer->sa_family != family) continue;
    if (family == AF_INET6) return &reinterpret_cast<const sockaddr_in6*>(peer)->sin6_addr;
    return &reinterpret_cast<const sockaddr_in*>(peer)->sin_addr;
  }
  return nullptr;
}

void store_nexthop(LBInterface& interface, const std::string& address) {
  MutexLock lock(interface.mutex);
  interface.state.nexthop_address = address;
}

// How next hops are left for us to find.
struct Discovery {
  // The name in the lease file's path, and that of a tunnel.
  const std::string& (*search_name)(const LBInterface& interface);

  // The router in the text of a lease file; no value keeps what was found before.
  std::optional<std::string> (*router)(std::string_view text, const LBInterface& interface);

  // Leases are read by the interface's own worker only, so that its tests see the next hop change
  // between two cycles.
  bool only_own_vrf;
};

// By a device that knows its interfaces under the names of the configuration.
constexpr Discovery kDeviceDiscovery{
    .search_name = [](const LBInterface& interface) -> const std::string& {
      return interface.name;
    },
    .router = [](std::string_view text,
                 const LBInterface& interface) { return lease_router(text, interface.ipv6); },
    .only_own_vrf = false,
};

// By stock clients, which know the Linux names.
constexpr Discovery kLinuxDiscovery{
    .search_name = [](const LBInterface& interface) -> const std::string& {
      return interface.origin;
    },
    .router =
        [](std::string_view text, const LBInterface& interface) {
          return interface.ipv6 ? script_router(text)
                                : isc_lease_router(text, interface.origin, wall_now().tv_sec);
        },
    .only_own_vrf = true,
};

const Discovery& discovery_of(const LBInterface& interface) {
  return interface.options->linux_discovery ? kLinuxDiscovery : kDeviceDiscovery;
}

std::string lease_path(const LBInterface& interface) {
  if (!interface.lease_file.empty()) return interface.lease_file;
  return lease_file_path(discovery_of(interface).search_name(interface), interface.ipv6);
}

void warn_of_missing_router(const LBInterface& interface, const std::string& path) {
  const std::string device = device_name(interface.origin);
  // The documented text, unless something of the place was asked for.
  if (interface.lease_file.empty() && !interface.options->linux_discovery) {
    LB_WARNING("Failed to get routers option from DHCP on interface %s", device.c_str());
  } else {
    LB_WARNING("Failed to get routers option from DHCP on interface %s (lease file '%s')",
               device.c_str(), path.c_str());
  }
}

}  // namespace

void resolve_dhcp_nexthops(LBConfig& config, const LBWorkerContext& worker) {
  for (auto& [name, interface] : config.interfaces_of(worker.ipv6)) {
    if (interface.nexthop != "dhcp") continue;
    const Discovery& discovery = discovery_of(interface);
    if (discovery.only_own_vrf && interface.vrf != worker.vrf) continue;
    const std::string path = lease_path(interface);
    const std::optional<std::string> text = read_lease_text(path);
    const std::optional<std::string> router =
        text ? discovery.router(*text, interface) : std::nullopt;
    if (router) store_nexthop(interface, *router);
    if (interface.gateway().empty()) warn_of_missing_router(interface, path);
  }
}

void resolve_tunnel_nexthops(LBConfig& config, const LBWorkerContext& worker) {
  const bool ipv6 = worker.ipv6;
  InterfaceMap& interfaces = config.interfaces_of(ipv6);
  // A tunnel of another VRF is not visible from here; to look would take away the peer that its own
  // worker found.
  const auto is_own_tunnel = [&worker](const auto& entry) {
    return entry.second.nexthop == "tunnel" && entry.second.vrf == worker.vrf;
  };
  if (std::none_of(interfaces.begin(), interfaces.end(), is_own_tunnel)) return;

  ifaddrs* entries = nullptr;
  if (getifaddrs(&entries) != 0) {
    // It says nothing about any tunnel: the peers stay, so that no route is taken away.
    LB_WARNING("Failed to read the interface addresses, errno = %d", errno);
    return;
  }
  const AddressList owner(entries, &freeifaddrs);

  const int family = ipv6 ? AF_INET6 : AF_INET;
  for (auto& entry : interfaces) {
    if (!is_own_tunnel(entry)) continue;
    LBInterface& interface = entry.second;
    const void* peer = find_peer(entries, discovery_of(interface).search_name(interface), family);
    if (peer == nullptr) {
      store_nexthop(interface, "");
      continue;
    }
    const std::string address = address_to_text(family, peer);
    if (address.empty()) {
      LB_WARNING("Failed to get P-t-P destination from tunnel interface %s",
                 device_name(interface.origin).c_str());
    } else {
      store_nexthop(interface, address);
    }
  }
}
