#include "routing/static_routes.h"

#include <algorithm>
#include <iterator>
#include <optional>
#include <sstream>
#include <utility>

#include "routing/route_syntax.h"

namespace {

struct Gateway {
  std::string address;  // empty while it is still to be found
  std::string device;
  bool is_known = false;
};

// The VRF's active interfaces, by name.
using Gateways = std::map<std::string, Gateway>;

// Interface name to weight: what may carry a rule's routes.
using Weights = std::map<std::string, int32_t>;

Gateways active_gateways(const LBConfig& config, bool ipv6, const std::string& vrf) {
  Gateways gateways;
  for (const auto& [name, interface] : config.interfaces_of(ipv6)) {
    if (interface.vrf != vrf) continue;
    const bool found = interface.discovers_nexthop();
    const MutexLock lock(interface.mutex);
    if (!interface.state.active) continue;
    const std::string& address = found ? interface.state.nexthop_address : interface.nexthop;
    gateways.emplace(name, Gateway{address, interface.origin, !found || !address.empty()});
  }
  return gateways;
}

// All active members that the syntax takes, or for a failover rule only the heaviest (of equals the
// first by name).
Weights eligible_members(const std::string& rule_name, const LBRule& rule, bool ipv6,
                         const Gateways& gateways, const RouteSyntax& syntax) {
  Weights eligible;
  int32_t largest = -1;
  for (const auto& [name, member] : rule.members) {
    const auto gateway = gateways.find(name);
    if (member.ipv6 != ipv6 || gateway == gateways.end()) continue;
    const Nexthop nexthop{gateway->second.address, gateway->second.device};
    if (!syntax.takes({rule_name, name}, nexthop, ipv6)) continue;
    eligible.emplace(name, member.weight);
    largest = std::max(largest, member.weight);
  }
  if (rule.failover == 0) return eligible;

  std::erase_if(eligible, [largest](const auto& entry) { return entry.second != largest; });
  if (eligible.size() > 1) eligible.erase(std::next(eligible.begin()), eligible.end());
  return eligible;
}

std::vector<Nexthop> nexthops_of(const Weights& eligible, const Gateways& gateways) {
  std::vector<Nexthop> nexthops;
  for (const auto& [name, weight] : eligible) {
    const Gateway& gateway = gateways.at(name);
    if (gateway.is_known && weight != 0) {
      nexthops.push_back({gateway.address, gateway.device, weight});
    }
  }
  return nexthops;
}

}  // namespace

bool has_members(const LBRule& rule, bool ipv6) {
  return std::any_of(rule.members.begin(), rule.members.end(),
                     [ipv6](const auto& entry) { return entry.second.ipv6 == ipv6; });
}

RoutePlan plan_static_routes(const LBConfig& config, bool ipv6, const std::string& vrf,
                             const RouteSyntax& syntax) {
  const Gateways gateways = active_gateways(config, ipv6, vrf);
  RoutePlan plan;
  for (const auto& [rule_name, rule] : config.rules) {
    if (rule.vrf != vrf) continue;
    RulePlan& planned = plan.emplace_back(RulePlan{rule_name, rule.failover != 0, {}});
    const auto nexthops =
        nexthops_of(eligible_members(rule_name, rule, ipv6, gateways, syntax), gateways);
    if (nexthops.empty()) continue;
    const bool of_both_families = has_members(rule, !ipv6);
    planned.routes.reserve(rule.targets.size());
    for (const auto& [prefix, target] : rule.targets) {
      std::string destination = syntax.destination({rule_name, prefix, of_both_families}, ipv6);
      if (destination.empty()) continue;
      planned.routes.push_back({prefix, {std::move(destination), target.metric, nexthops}});
    }
  }
  return plan;
}

StaticRoutes write_static_routes(const RoutePlan& plan, const RouteSyntax& syntax) {
  StaticRoutes routes;
  for (const RulePlan& rule : plan) {
    for (const auto& [target, route] : rule.routes) {
      routes.body += syntax.line(route);
      if (rule.failover) {
        routes.failover_nexthops[rule.rule][target] = route.nexthops.front().address;
      }
    }
  }
  return routes;
}

StaticRoutes build_static_routes(const LBConfig& config, bool ipv6, const std::string& vrf) {
  const RouteSyntax& syntax = route_syntax(*config.options);
  return write_static_routes(plan_static_routes(config, ipv6, vrf, syntax), syntax);
}

std::string protocol_static_text(const std::string& body, bool ipv6) {
  const std::string head = std::string("protocol static {\n") +
                           (ipv6 ? "ipv6 {table master6;};\n" : "ipv4 {table master4;};\n") +
                           "check link 1;\n";
  std::string text;
  for (size_t start = 0; start < body.size();) {
    const size_t end = std::min(body.find('\n', start), body.size());
    text += head;
    text.append(body, start, end - start);
    text += "\n};\n";
    start = end + 1;
  }
  return text;
}

std::vector<StaticRoute> read_static_routes(const std::string& text, bool ipv6,
                                            const RouteSyntax& syntax) {
  std::vector<StaticRoute> routes;
  std::istringstream lines(text);
  for (std::string line; std::getline(lines, line);) {
    if (auto route = syntax.parse(line, ipv6)) routes.push_back(std::move(*route));
  }
  return routes;
}
