// One pass per check cycle and worker: build the text, note it, and only when it changed write the
// routing daemon's file and wake the daemon. The configuration's run-time lock covers the notes; it
// is never held over the file, the signal or a command.
#include "routing/route_decision.h"

#include <algorithm>
#include <utility>

#include "routing/routing_daemon.h"
#include "routing/static_routes.h"

namespace {

// True when the entry of `prefix` in the rule's failover_nexthops is for this family to keep.
//
// Both workers of a VRF walk all of its rules, and a worker that finds no member of its family must
// not take away what the other one recorded. So a rule belongs to the family of its members; where
// it has members of both, to each the destinations of its own family.
bool owns_failover_entry(const LBRule& rule, const std::string& prefix, bool ipv6) {
  const auto has_members = [&rule](bool of_ipv6) {
    return std::any_of(rule.members.begin(), rule.members.end(),
                       [of_ipv6](const auto& entry) { return entry.second.ipv6 == of_ipv6; });
  };
  if (!has_members(ipv6)) return false;
  return !has_members(!ipv6) || (prefix.find(':') != std::string::npos) == ipv6;
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

}  // namespace

void LBDecision::run(LBConfig& config, const LBWorkerContext& worker) {
  const bool ipv6 = worker.ipv6;
  const StaticRoutes routes = build_static_routes(config, ipv6, worker.vrf);
  keep_failover_nexthops(config, routes, ipv6, worker.vrf);

  // Noted before it is written: a write that fails is tried again when the text changes.
  if (!note_written(config, routes.body, ipv6, worker.vrf)) return;
  const RoutingDaemon daemon(worker.vrf, ipv6);
  daemon.write_file(protocol_static_text(routes.body, ipv6));
  daemon.reload();
}
