#include "routing/route_keeper.h"

#include <algorithm>
#include <cstdint>
#include <utility>

#include "config/log.h"
#include "platform/clock.h"
#include "routing/interface_health.h"

namespace {

// A route names an interface by its device or, where the syntax has none, by its next hop; while
// that is still to be found the interface may be the one.
bool names(const StaticRoute& route, const LBInterface& interface, const std::string& gateway) {
  return std::any_of(route.nexthops.begin(), route.nexthops.end(), [&](const Nexthop& nexthop) {
    if (!nexthop.device.empty()) return nexthop.device == interface.origin;
    return gateway.empty() || nexthop.address == gateway;
  });
}

bool is_named(const std::vector<StaticRoute>& routes, const LBInterface& interface,
              const std::string& gateway) {
  return std::any_of(routes.begin(), routes.end(),
                     [&](const StaticRoute& route) { return names(route, interface, gateway); });
}

// True when the route can be the rule's own: it has the metric of the target and names a member. Of
// rules of the same destination each so gets back what it had.
bool is_of(const StaticRoute& route, const LBRule& rule, const LBTarget& target,
           const InterfaceMap& interfaces, bool ipv6) {
  if (route.metric != target.metric) return false;
  return std::any_of(rule.members.begin(), rule.members.end(), [&](const auto& entry) {
    const auto interface = interfaces.find(entry.first);
    return entry.second.ipv6 == ipv6 && interface != interfaces.end() &&
           names(route, interface->second, interface->second.gateway());
  });
}

// Milliseconds until a target of the interface has settled for certain.
int64_t detection_time(const LBInterface& interface) {
  constexpr int64_t kCycle = 1000;
  int64_t longest_wait = 0;
  for (const auto& [index, test] : interface.tests) {
    longest_wait = std::max(longest_wait, test->longest_wait());
  }
  // Outcomes are looked at once per cycle. What is beyond any use must not overflow.
  const int64_t wait = std::clamp<int64_t>(longest_wait, 1, INT32_MAX);
  const int64_t cycles = 1 + (wait + kCycle - 1) / kCycle;
  const int64_t probes = std::max(interface.success_ct, interface.failure_ct);
  return (probes + 1) * cycles * kCycle;
}

}  // namespace

RouteKeeper::Kept RouteKeeper::keep(RoutePlan fresh, std::vector<StaticRoute> left,
                                    const LBConfig& config, const LBWorkerContext& worker,
                                    const RouteSyntax& syntax) {
  if (!std::exchange(started_, true)) take_over(std::move(left), fresh, config, worker, syntax);
  Kept kept{std::move(fresh), is_holding(config, worker)};
  for (RulePlan& rule : kept.plan) {
    const char* const name = rule.rule.c_str();
    const int version = worker.family().version;
    if (kept.in_force) {
      rule.routes = last_[rule.rule];
    } else if (!rule.routes.empty()) {
      last_[rule.rule] = rule.routes;
      if (kept_.erase(rule.rule) == 0) continue;
      LB_INSTANCE("wan_lb: rule %s: IPv%d routes follow the interfaces again", name, version);
    } else if (const auto last = last_.find(rule.rule);
               last != last_.end() && !last->second.empty()) {
      rule.routes = last->second;
      if (!kept_.insert(rule.rule).second) continue;
      LB_INSTANCE("wan_lb: rule %s: no usable interface, last IPv%d routes kept", name, version);
    }
  }
  return kept;
}

void RouteKeeper::take_over(std::vector<StaticRoute> routes, const RoutePlan& rules,
                            const LBConfig& config, const LBWorkerContext& worker,
                            const RouteSyntax& syntax) {
  const bool ipv6 = worker.ipv6;
  if (routes.empty()) return;
  // In the order of the rules, as the file is. What no rule has as its own, since metric or members
  // are others now, goes to the first that has the destination.
  std::map<std::string, std::map<std::string, StaticRoute>> claimed;
  std::multimap<std::string, const StaticRoute*> unclaimed;  // by destination, else as in the file
  for (const StaticRoute& route : routes) unclaimed.emplace(route.destination, &route);
  for (const bool own : {true, false}) {
    for (const RulePlan& planned : rules) {
      const LBRule& rule = config.rules.at(planned.rule);
      if (!has_members(rule, ipv6)) continue;
      for (const auto& entry : rule.targets) {
        const auto& target = entry.first;  // no structured binding: clang lets no lambda use one
        if (claimed[planned.rule].contains(target)) continue;
        const std::string destination =
            syntax.destination({planned.rule, target, has_members(rule, !ipv6)}, ipv6);
        const auto candidates = unclaimed.equal_range(destination);
        const auto found =
            std::find_if(candidates.first, candidates.second, [&](const auto& candidate) {
              return !own ||
                     is_of(*candidate.second, rule, entry.second, config.interfaces_of(ipv6), ipv6);
            });
        if (found == candidates.second) continue;
        claimed[planned.rule].emplace(target, *found->second);
        unclaimed.erase(found);
      }
    }
  }
  for (const auto& [rule, targets] : claimed) {
    for (const auto& [target, route] : targets) last_[rule].push_back({target, route});
  }
  hold_ = Hold{monotonic_now(), std::move(routes)};
  LB_INSTANCE("wan_lb: VRF %s: IPv%d routes of the run before stay until their interfaces settle",
              worker.vrf.c_str(), worker.family().version);
}

bool RouteKeeper::is_holding(const LBConfig& config, const LBWorkerContext& worker) {
  if (!hold_) return false;
  int64_t longest = 0;
  bool waiting = false;
  for (const auto& [name, interface] : config.interfaces_of(worker.ipv6)) {
    if (interface.vrf != worker.vrf) continue;
    const std::string gateway = interface.gateway();
    if (!is_named(hold_->routes, interface, gateway)) continue;
    longest = std::max(longest, detection_time(interface));
    waiting = waiting || gateway.empty() || !has_settled(interface);
  }
  const timespec now = monotonic_now();
  const bool is_over = milliseconds_between(hold_->since, now) > longest;
  if (waiting && !is_over) return true;
  hold_.reset();
  LB_INSTANCE("wan_lb: VRF %s: IPv%d routes follow the interfaces%s", worker.vrf.c_str(),
              worker.family().version, waiting ? ", of which some have not settled in time" : "");
  return false;
}
