#include "lbctl/discovered_nexthops.h"

#include <algorithm>

#include <fmt/format.h>

#include "config/worker_context.h"
#include "lbctl/inside_vrf.h"
#include "lbctl/print.h"
#include "lbctl/readable_log.h"
#include "platform/places.h"
#include "routing/kernel_routes.h"
#include "routing/nexthop_discovery.h"

namespace lbctl {

namespace {

std::string found_address(const LBInterface& interface) {
  MutexLock lock(interface.mutex);
  return interface.state.nexthop_address;
}

void store(LBInterface& interface, const std::string& address) {
  MutexLock lock(interface.mutex);
  interface.state.nexthop_address = address;
}

// The name that stock clients know the interface by, or a device's own.
const std::string& search_name(const LBInterface& interface) {
  return interface.options->linux_discovery ? interface.origin : interface.name;
}

// What is said below of each interface, with the place.
bool is_said_anyway(const std::string& sentence) { return sentence.starts_with("Failed to get "); }

}  // namespace

std::string place_of_nexthop(const LBInterface& interface) {
  if (interface.nexthop == "dhcp") {
    return "the lease file " + (interface.lease_file.empty()
                                    ? lease_file_path(search_name(interface), interface.ipv6)
                                    : interface.lease_file);
  }
  if (interface.nexthop == "tunnel") {
    return "the point-to-point peer of the device " + search_name(interface);
  }
  if (interface.nexthop == "kernel") {
    return fmt::format("the default routes by {} in the kernel's main table", interface.origin);
  }
  return "";
}

std::vector<std::string> discover_nexthops(LBConfig& config, const std::string& vrf, bool ipv6,
                                           const std::function<bool(const LBInterface&)>& wanted) {
  // The daemon's functions look at all interfaces: they get those that are wanted only.
  LBConfig looked_at;
  looked_at.replace(config);
  InterfaceMap& interfaces = looked_at.interfaces_of(ipv6);
  std::erase_if(interfaces, [&](const auto& entry) {
    const LBInterface& interface = entry.second;
    return interface.vrf != vrf || !interface.discovers_nexthop() || !wanted(interface);
  });
  if (interfaces.empty()) return {};

  LBWorkerContext worker;
  worker.ipv6 = ipv6;
  worker.vrf = vrf;
  std::vector<std::string> sentences;
  const auto note = [&sentences] {
    for (std::string& sentence : readable(take_log_messages())) {
      if (!is_said_anyway(sentence)) sentences.push_back(std::move(sentence));
    }
  };
  take_log_messages();
  resolve_dhcp_nexthops(looked_at, worker);  // files: no namespace is needed
  note();
  if (std::any_of(interfaces.begin(), interfaces.end(),
                  [](const auto& entry) { return entry.second.nexthop != "dhcp"; })) {
    const std::string refusal = run_inside_vrf(vrf, [&] {
      take_log_messages();
      resolve_tunnel_nexthops(looked_at, worker);
      resolve_kernel_nexthops(looked_at, worker);
      note();
    });
    if (!refusal.empty()) sentences.push_back(refusal + "; --nexthop can give what it knows");
  }
  for (const auto& [name, interface] : interfaces) {
    const std::string address = found_address(interface);
    store(config.interfaces_of(ipv6).at(name), address);
    if (!address.empty()) continue;
    sentences.push_back(fmt::format("no next hop of {} is known from {}: it carries nothing",
                                    interface_label(name, ipv6), place_of_nexthop(interface)));
  }
  return sentences;
}

}  // namespace lbctl
