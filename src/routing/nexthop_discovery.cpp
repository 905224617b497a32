// Files and interface addresses are read without any lock; an interface's lock is taken only to
// store what was found.
#include "routing/nexthop_discovery.h"

#include <ifaddrs.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <memory>
#include <optional>

#include "config/log.h"
#include "packets/family.h"
#include "platform/places.h"
#include "routing/interface_health.h"
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

}  // namespace

void resolve_dhcp_nexthops(LBConfig& config, const LBWorkerContext& worker) {
  const bool ipv6 = worker.ipv6;
  for (auto& [name, interface] : config.interfaces_of(ipv6)) {
    if (interface.nexthop != "dhcp") continue;
    const std::optional<std::string> router = read_lease_router(lease_file_path(name, ipv6), ipv6);
    if (router) store_nexthop(interface, *router);
    if (interface.gateway().empty()) {
      LB_WARNING("Failed to get routers option from DHCP on interface %s",
                 device_name(interface.origin).c_str());
    }
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
    auto& [name, interface] = entry;
    const void* peer = find_peer(entries, name, family);
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
