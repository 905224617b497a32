#include "lbctl/status_model.h"

#include <algorithm>
#include <iterator>
#include <map>
#include <utility>

#include "lbctl/command.h"
#include "lbctl/routes_in_force.h"

namespace lbctl {

namespace {

std::vector<RuleStatus> statuses_of(const Dumps& dumps, const Families& families,
                                    const TableReader& read_table) {
  std::map<std::pair<std::string, bool>, std::optional<RoutesInForce>> tables;
  std::vector<RuleStatus> statuses;
  for (const RuleDump& rule : dumps.rules) {
    if (!families.has(rule.ipv6)) continue;
    RuleStatus& status = statuses.emplace_back(RuleStatus{rule, {}});
    if (rule.routes.empty()) continue;
    const auto [entry, is_new] = tables.try_emplace({rule.vrf, rule.ipv6});
    if (is_new) {
      if (const auto table = read_table(rule.vrf, rule.ipv6))
        entry->second.emplace(dumps, rule.vrf, rule.ipv6, *table);
    }
    for (const RouteDump& route : rule.routes) {
      RouteStatus& shown = status.routes.emplace_back(RouteStatus{route, std::nullopt, ""});
      if (!entry->second) continue;
      shown.in_force = entry->second->has(rule, route);
      shown.used_instead = entry->second->used_instead(route);
    }
  }
  return statuses;
}

}  // namespace

Status make_status(const Dumps& dumps, const Families& families, std::time_t now,
                   const TableReader& read_table) {
  Status status;
  status.written = dumps.newest.tv_sec;
  status.now = now;
  status.stale = dumps.is_stale(now);
  std::copy_if(
      dumps.interfaces.begin(), dumps.interfaces.end(), std::back_inserter(status.interfaces),
      [&families](const InterfaceDump& interface) { return families.has(interface.ipv6); });
  status.rules = statuses_of(dumps, families, read_table);
  return status;
}

int exit_status_of(const Status& status) {
  if (status.stale) return kExitUnreadable;
  const bool all_active = std::all_of(status.interfaces.begin(), status.interfaces.end(),
                                      [](const InterfaceDump& one) { return one.active; });
  return all_active ? kExitOk : kExitNo;
}

}  // namespace lbctl
