// One pass per check cycle and worker: build the text, note it, and only when it changed write the
// routing daemon's file and wake the daemon. The configuration's run-time lock covers the notes; it
// is never held over the file, the signal or a command.
#include "routing/route_decision.h"

#include <utility>
#include <vector>

#include "routing/route_syntax.h"
#include "routing/routing_daemon.h"
#include "routing/static_routes.h"

namespace {

// True when the entry of `prefix` in the rule's failover_nexthops is for this family to keep.
//
// Both workers of a VRF walk all of its rules, and a worker that finds no member of its family must
// not take away what the other one recorded. So a rule belongs to the family of its members; where
// it has members of both, to each the destinations of its own family.
bool owns_failover_entry(const LBRule& rule, const std::string& prefix, bool ipv6) {
  if (!has_members(rule, ipv6)) return false;
  return !has_members(rule, !ipv6) || (prefix.find(':') != std::string::npos) == ipv6;
}

// Replaces the next hops of the VRF's rules in one step, so that no dump sees a rule half done.
void keep_failover_nexthops(LBConfig& config, const StaticRoutes& routes, bool ipv6,
                            const std::string& vrf) {
  MutexLock lock(config.written_mutex);
  for (const auto& [rule_name, rule] : config.rules) {
    if (rule.vrf != vrf) continue;
    WrittenState::TextByTarget& kept = config.written.failover_nexthops[rule_name];
    std::erase_if(kept, [&rule = rule, ipv6](const auto& entry) {
      return owns_failover_entry(rule, entry.first, ipv6);
    });
    const auto built = routes.failover_nexthops.find(rule_name);
    if (built == routes.failover_nexthops.end()) continue;
    for (const auto& [prefix, nexthop] : built->second) {
      if (owns_failover_entry(rule, prefix, ipv6)) kept[prefix] = nexthop;
    }
  }
}

// Notes `body` as the text written last; false when it already is.
bool note_written(LBConfig& config, const std::string& body, bool ipv6, const std::string& vrf) {
  MutexLock lock(config.written_mutex);
  std::string& text = (ipv6 ? config.written.routes_written6 : config.written.routes_written)[vrf];
  if (text == body) return false;
  text = body;
  return true;
}

// The routes that the run before left. If nobody else changed their file it is noted, since it need
// not be written again.
std::vector<StaticRoute> take_left(LBConfig& config, const LBWorkerContext& worker,
                                   const RouteSyntax& syntax) {
  const bool ipv6 = worker.ipv6;
  const std::string text = RoutingDaemon(worker.vrf, ipv6).read_file();
  std::vector<StaticRoute> routes = read_static_routes(text, ipv6, syntax);
  std::string body;
  for (const StaticRoute& route : routes) body += syntax.line(route);
  if (!body.empty() && protocol_static_text(body, ipv6) == text) {
    note_written(config, body, ipv6, worker.vrf);
  }
  return routes;
}

}  // namespace

RouteKeeper& LBDecision::keeper_of(const LBWorkerContext& worker) {
  MutexLock lock(mutex_);
  return keepers_[{worker.vrf, worker.ipv6}];
}

void LBDecision::run(LBConfig& config, const LBWorkerContext& worker) {
  const bool ipv6 = worker.ipv6;
  const RouteSyntax& syntax = route_syntax(*config.options);
  RoutePlan plan = plan_static_routes(config, ipv6, worker.vrf, syntax);
  bool in_force = false;
  if (config.options->keeps_last_routes) {
    RouteKeeper& keeper = keeper_of(worker);
    std::vector<StaticRoute> left;
    if (!keeper.has_started()) left = take_left(config, worker, syntax);
    RouteKeeper::Kept kept = keeper.keep(std::move(plan), std::move(left), config, worker, syntax);
    plan = std::move(kept.plan);
    in_force = kept.in_force;
  }
  const StaticRoutes routes = write_static_routes(plan, syntax);
  keep_failover_nexthops(config, routes, ipv6, worker.vrf);
  if (in_force) return;

  // Noted before it is written: a write that fails is tried again when the text changes.
  if (!note_written(config, routes.body, ipv6, worker.vrf)) return;
  const RoutingDaemon daemon(worker.vrf, ipv6);
  daemon.write_file(protocol_static_text(routes.body, ipv6));
  daemon.reload();
}
