#include "lbctl/routes_each.h"

#include <algorithm>
#include <array>
#include <map>
#include <utility>

#include <fmt/format.h>

#include "lbctl/assumed_state.h"
#include "lbctl/print.h"
#include "lbctl/routes_file.h"
#include "routing/route_syntax.h"

namespace lbctl {

namespace {

constexpr const char* kNobody = "(none)";
constexpr const char* kNothing = "-";

using Row = std::array<std::string, 4>;  // who is down, rule, destination, next hops

// By rule and the destination as the rule has it: two rules may have the same one.
struct Way {
  std::string destination;  // as written
  std::string text;         // "via ..."
  bool operator==(const Way&) const = default;
};
using Ways = std::map<std::pair<std::string, std::string>, Way>;

Ways ways_of(const RoutePlan& plan, const RouteSyntax& syntax) {
  Ways ways;
  for (const RulePlan& rule : plan) {
    for (const auto& [target, route] : rule.routes) {
      std::string line = syntax.line(route);  // "route DESTINATION via ...;" and a newline
      line.erase(0, std::min(line.find(" via ") + 1, line.size()));
      line.resize(line.size() - std::min<size_t>(line.size(), 2));
      ways[{rule.rule, target}] = {route.destination, std::move(line)};
    }
  }
  return ways;
}

void append_changes(const Ways& before, const Ways& after, const std::string& label,
                    std::vector<Row>& rows) {
  const size_t first = rows.size();
  const auto who = [&] { return rows.size() == first ? label : std::string(); };
  for (const auto& [key, way] : before) {
    const auto now = after.find(key);
    if (now != after.end() && now->second == way) continue;
    rows.push_back(
        {who(), key.first, way.destination, now == after.end() ? "no route" : now->second.text});
  }
  for (const auto& [key, way] : after) {
    if (!before.contains(key)) rows.push_back({who(), key.first, way.destination, way.text});
  }
  if (rows.size() == first) rows.push_back({label, kNothing, kNothing, "no change"});
}

std::string text_of(const std::vector<Row>& rows) {
  std::array<size_t, 3> widths{};  // the last column ends the line
  for (const Row& row : rows) {
    for (size_t at = 0; at < widths.size(); ++at) widths[at] = std::max(widths[at], row[at].size());
  }
  std::string text;
  for (const Row& row : rows) {
    text +=
        fmt::format("{:<{}}  {:<{}}  {:<{}}  {}\n", printable(row[0]), widths[0], printable(row[1]),
                    widths[1], printable(row[2]), widths[2], printable(row[3]));
  }
  return text;
}

}  // namespace

std::string table_of_each(const LBConfig& config, const std::string& vrf,
                          const std::vector<bool>& families) {
  LBConfig model;
  model.replace(config);
  assume_all(model, true);
  const RouteSyntax& syntax = route_syntax(*config.options);
  std::vector<Row> rows{{"DOWN", "RULE", "DESTINATION", "ROUTE"}};
  std::map<bool, Ways> all_up;
  for (const bool ipv6 : families) {
    for (const auto& [key, way] :
         all_up[ipv6] = ways_of(make_route_file(model, vrf, ipv6).plan, syntax)) {
      rows.push_back({rows.size() == 1 ? kNobody : "", key.first, way.destination, way.text});
    }
  }
  if (rows.size() == 1) rows.push_back({kNobody, kNothing, kNothing, "no route"});
  for (const bool ipv6 : families) {
    if (!is_served(model, vrf, ipv6)) continue;
    for (const auto& [name, interface] : model.interfaces_of(ipv6)) {
      if (interface.vrf != vrf) continue;
      assume(model, {name, ipv6}, false);
      append_changes(all_up[ipv6], ways_of(make_route_file(model, vrf, ipv6).plan, syntax),
                     interface_label(name, ipv6), rows);
      assume(model, {name, ipv6}, true);
    }
  }
  return text_of(rows);
}

}  // namespace lbctl
