#include "routing/static_routes.h"

#include <algorithm>
#include <iterator>
#include <optional>

namespace {

// The VRF's active interfaces and the next hop of each: no value while it is still to be found.
using Gateways = std::map<std::string, std::optional<std::string>>;

// Interface name to weight: what may carry a rule's routes.
using Weights = std::map<std::string, int32_t>;

Gateways active_gateways(const LBConfig& config, bool ipv6, const std::string& vrf) {
  Gateways gateways;
  for (const auto& [name, interface] : config.interfaces_of(ipv6)) {
    if (interface.vrf != vrf) continue;
    const InterfaceState state = interface.snapshot();
    if (!state.active) continue;
    if (!interface.discovers_nexthop()) {
      gateways.emplace(name, interface.nexthop);
    } else if (state.nexthop_address.empty()) {
      gateways.emplace(name, std::nullopt);
    } else {
      gateways.emplace(name, state.nexthop_address);
    }
  }
  return gateways;
}

// All active members, or for a failover rule only the heaviest (of equals the first by name). A
// failover member is chosen before its next hop is looked at.
Weights eligible_members(const LBRule& rule, bool ipv6, const Gateways& gateways) {
  Weights eligible;
  int32_t largest = -1;
  for (const auto& [name, member] : rule.members) {
    if (member.ipv6 != ipv6 || !gateways.contains(name)) continue;
    eligible.emplace(name, member.weight);
    largest = std::max(largest, member.weight);
  }
  if (rule.failover == 0) return eligible;

  std::erase_if(eligible, [largest](const auto& entry) { return entry.second != largest; });
  if (eligible.size() > 1) eligible.erase(std::next(eligible.begin()), eligible.end());
  return eligible;
}

}  // namespace

StaticRoutes build_static_routes(const LBConfig& config, bool ipv6, const std::string& vrf) {
  const Gateways gateways = active_gateways(config, ipv6, vrf);
  StaticRoutes routes;
  for (const auto& [rule_name, rule] : config.rules) {
    if (rule.vrf != vrf) continue;
    const Weights eligible = eligible_members(rule, ipv6, gateways);
    for (const auto& [prefix, target] : rule.targets) {
      std::string line;
      for (const auto& [name, weight] : eligible) {
        const std::optional<std::string>& gateway = gateways.at(name);
        if (!gateway || weight == 0) continue;
        const bool first = line.empty();
        line.append(" via ").append(*gateway).append(" weight ").append(std::to_string(weight));
        // The metric belongs to the route; the routing daemon takes it after the first next hop.
        if (first && target.metric != -1) line += " metric " + std::to_string(target.metric);
        if (rule.failover != 0) routes.failover_nexthops[rule_name][prefix] = *gateway;
      }
      if (!line.empty()) routes.body.append("route ").append(prefix).append(line).append(";\n");
    }
  }
  return routes;
}

std::string protocol_static_text(const std::string& body, bool ipv6) {
  const std::string head = std::string("protocol static {\n") +
                           (ipv6 ? "ipv6 {table master6;};\n" : "ipv4 {table master4;};\n") +
                           "check link 1;\n";
  std::string text;
  for (size_t start = 0; start < body.size();) {
    const size_t end = std::min(body.find('\n', start), body.size());
    text += head + body.substr(start, end - start) + "\n};\n";
    start = end + 1;
  }
  return text;
}
