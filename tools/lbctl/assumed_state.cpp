#include "lbctl/assumed_state.h"

#include <netinet/in.h>

#include <fmt/format.h>

#include "lbctl/command.h"
#include "lbctl/print.h"
#include "packets/family.h"

namespace lbctl {

namespace {

LBInterface& interface_of(LBConfig& config, const InterfaceName& interface) {
  return config.interfaces_of(interface.ipv6).at(interface.name);
}

void set_state(LBInterface& interface, bool active) {
  MutexLock lock(interface.mutex);
  interface.state.active = active;
}

}  // namespace

InterfaceName find_interface_name(const LBConfig& config, const std::string& label,
                                  bool only_ipv6) {
  InterfaceName found;
  const bool is_label = parse_interface_label(label, found.name, found.ipv6);
  if (only_ipv6) found.ipv6 = true;
  if (is_label && config.interfaces_of(found.ipv6).contains(found.name)) return found;
  const bool has_other = config.interfaces_of(!found.ipv6).contains(found.name);
  throw usage_error(
      fmt::format("the configuration has no IPv{} interface '{}'{}", found.ipv6 ? 6 : 4, found.name,
                  has_other ? fmt::format("; the IPv{} one is written {}", found.ipv6 ? 4 : 6,
                                          interface_label(found.name, !found.ipv6))
                            : std::string()));
}

AssumedNexthop parse_assumed_nexthop(const LBConfig& config, const std::string& text,
                                     bool only_ipv6) {
  const size_t equals = text.find('=');
  if (equals == std::string::npos) {
    throw usage_error(fmt::format("--nexthop {}: NAME=ADDRESS is needed", text));
  }
  AssumedNexthop nexthop{find_interface_name(config, text.substr(0, equals), only_ipv6),
                         text.substr(equals + 1)};
  const auto& [name, ipv6] = nexthop.interface;
  const LBInterface& interface = config.interfaces_of(ipv6).at(name);
  if (!interface.discovers_nexthop()) {
    throw usage_error(fmt::format(
        "--nexthop {}: the next hop of {} is configured ('{}'); only one of \"dhcp\", \"tunnel\" "
        "or \"kernel\" is found at run time",
        text, interface_label(name, ipv6), interface.nexthop));
  }
  if (nexthop.address == "-") nexthop.address.clear();
  in6_addr address{};  // room for an address of either family
  if (!nexthop.address.empty() &&
      address_from_text(family_of(ipv6).address_family, nexthop.address, &address) != 1) {
    throw usage_error(
        fmt::format("--nexthop {}: '{}' is no IPv{} address", text, nexthop.address, ipv6 ? 6 : 4));
  }
  return nexthop;
}

void assume_all(LBConfig& config, bool active) {
  for (const bool ipv6 : {false, true}) {
    for (auto& [name, interface] : config.interfaces_of(ipv6)) set_state(interface, active);
  }
}

void assume(LBConfig& config, const InterfaceName& interface, bool active) {
  set_state(interface_of(config, interface), active);
}

void assume_nexthop(LBConfig& config, const AssumedNexthop& nexthop) {
  LBInterface& interface = interface_of(config, nexthop.interface);
  MutexLock lock(interface.mutex);
  interface.state.nexthop_address = nexthop.address;
}

}  // namespace lbctl
