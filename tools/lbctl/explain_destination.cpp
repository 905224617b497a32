// Along the way of a route: the rule's members, the routing daemon's file, the kernel's table.
#include "lbctl/explain_destination.h"

#include <algorithm>
#include <array>
#include <set>
#include <sstream>

#include <fmt/format.h>

#include "lbctl/explain_kernel.h"
#include "lbctl/explain_members.h"
#include "lbctl/kernel_table.h"
#include "lbctl/routes_file.h"
#include "packets/family.h"
#include "platform/places.h"
#include "routing/route_syntax.h"

namespace lbctl {

namespace {

struct Prefix {
  std::array<uint8_t, 16> bytes{};
  int length = -1;  // none
};

Prefix prefix_of(const std::string& canonical, bool ipv6) {
  Prefix prefix;
  const size_t slash = canonical.find('/');
  if (slash == std::string::npos ||
      address_from_text(family_of(ipv6).address_family, canonical.substr(0, slash),
                        prefix.bytes.data()) != 1) {
    return {};
  }
  prefix.length = std::stoi(canonical.substr(slash + 1));
  return prefix;
}

bool covers(const Prefix& wide, const Prefix& narrow) {
  if (wide.length < 0 || wide.length > narrow.length) return false;
  for (int bit = 0; bit < wide.length; ++bit) {
    const auto at = static_cast<size_t>(bit / 8);
    const int mask = 0x80 >> (bit % 8);
    if (((wide.bytes[at] ^ narrow.bytes[at]) & mask) != 0) return false;
  }
  return true;
}

std::set<std::string> addresses_of(const std::vector<Nexthop>& nexthops) {
  std::set<std::string> addresses;
  for (const Nexthop& nexthop : nexthops) addresses.insert(nexthop.address);
  return addresses;
}

// The routes to the destination in the file: as the rule has it, or in its canonical form. Each
// line is in one of the two syntaxes.
std::vector<StaticRoute> routes_in(const std::string& text, const std::string& destination,
                                   bool ipv6) {
  const std::string as_configured = "route " + destination + " ";
  const std::string canonical = "route " + canonical_destination(destination, ipv6) + " ";
  std::vector<StaticRoute> found;
  std::istringstream lines(text);
  for (std::string line; std::getline(lines, line);) {
    if (!line.starts_with(as_configured) && !line.starts_with(canonical)) continue;
    for (const bool bird2 : {false, true}) {
      Options options;
      options.bird2_routes = bird2;
      if (auto route = route_syntax(options).parse(line, ipv6)) found.push_back(std::move(*route));
    }
  }
  return found;
}

// The one of several rules' routes that the carriers make; else the first.
const StaticRoute& most_like(const std::vector<StaticRoute>& routes,
                             const std::set<std::string>& addresses) {
  const auto found = std::find_if(routes.begin(), routes.end(), [&](const StaticRoute& route) {
    return addresses_of(route.nexthops) == addresses;
  });
  return found == routes.end() ? routes.front() : *found;
}

// What the syntax leaves out of the file is told with the configuration only.
void add_left_out(const Situation& situation, const RuleDump& rule, Explanation& explanation) {
  if (situation.configuration == nullptr) return;
  const auto file = make_route_file(situation.configuration->model, rule.vrf, rule.ipv6);
  for (const std::string& remark : file.remarks) {
    if (remark.starts_with("rule " + rule_name(rule) + ":")) {
      explanation.add(fmt::format("The daemon leaves it out: {}.", remark),
                      fmt::format("Mend the rule: lbctl check {}", situation.configuration->path));
    }
  }
}

void explain_absence(const Situation& situation, const Destination& destination,
                     const std::string& path, const FileLook& look, Explanation& explanation) {
  if (!look.fault.empty()) {
    explanation.add(
        fmt::format("The routing daemon's file {} cannot be read: {}.", path, look.fault),
        look.is_absent ? "Make its directory where it is missing, see that the daemon may write "
                         "there, and look for \"error writing file\" in the log."
                       : "Ask again as a user who may read it.");
    return;
  }
  explanation.add(fmt::format("It is not in the routing daemon's file {}.", path));
  add_left_out(situation, *destination.rule, explanation);
  if (!explanation.next_step.empty()) return;
  explanation.next_step = fmt::format(
      "Look for \"error writing file\" in the log, and whether another program writes {}; a "
      "restart "
      "of the daemon writes it anew.",
      path);
}

std::string listed(const std::set<std::string>& addresses) {
  return fmt::format("{}", fmt::join(addresses, ", "));
}

// True when the route is in the file as the states want it.
bool explain_file(const Situation& situation, const Destination& destination,
                  const MemberReport& members, Explanation& explanation) {
  const RuleDump& rule = *destination.rule;
  const std::string path = route_file_path(rule.vrf, rule.ipv6);
  const FileLook look = situation.machine.file(path);
  const auto routes = routes_in(look.text, destination.route->destination, rule.ipv6);
  std::set<std::string> wanted;
  for (const Carrier& carrier : members.carriers) wanted.insert(carrier.address);
  if (routes.empty()) {
    if (wanted.empty()) {
      explanation.next_step = members.next_step;
    } else {
      explain_absence(situation, destination, path, look, explanation);
    }
    return false;
  }
  const StaticRoute& route = most_like(routes, wanted);
  const std::set<std::string> written = addresses_of(route.nexthops);
  if (!members.is_complete) {
    explanation.add(
        fmt::format("The routing daemon's file {} has it by {}.", path, listed(written)));
    if (!explain_kernel(situation, rule, route, look.text, explanation)) return false;
    explanation.next_step = members.next_step;
    return true;
  }
  if (written != wanted) {
    explanation.add(
        fmt::format("The routing daemon's file {} has it by {}{}.", path, listed(written),
                    wanted.empty() ? ": nobody is left to carry it, and its last route stays "
                                     "(keep-last-routes, or nothing was written since)"
                                   : ", which is not what the states above give"),
        wanted.empty() ? members.next_step
                       : "Look again in a moment; if it stays so, look for \"error writing file\" "
                         "in the log.");
  }
  return explain_kernel(situation, rule, route, look.text, explanation) && written == wanted;
}

}  // namespace

std::vector<Destination> all_destinations(const Dumps& dumps) {
  std::vector<Destination> all;
  for (const RuleDump& rule : dumps.rules) {
    for (const RouteDump& route : rule.routes) all.push_back({&rule, &route});
  }
  return all;
}

std::vector<Destination> find_destinations(const Dumps& dumps, const std::string& prefix) {
  std::vector<Destination> found;
  int closest = -1;
  for (const bool ipv6 : {false, true}) {
    const std::string wanted = canonical_destination(prefix, ipv6);
    for (const Destination& destination : all_destinations(dumps)) {
      if (destination.rule->ipv6 != ipv6) continue;
      const std::string& text = destination.route->destination;
      const std::string canonical = canonical_destination(text, ipv6);
      const Prefix own = prefix_of(canonical, ipv6);
      const bool is_exact = text == prefix || (!wanted.empty() && canonical == wanted);
      if (!is_exact && !covers(own, prefix_of(wanted, ipv6))) continue;
      const int closeness = is_exact ? 1000 : own.length;
      if (closeness > closest) found.clear();
      if (closeness >= closest) found.push_back(destination);
      closest = std::max(closest, closeness);
    }
  }
  return found;
}

Explanation explain_destination(const Situation& situation, const Destination& destination) {
  const RuleDump& rule = *destination.rule;
  Explanation explanation;
  explanation.headline =
      fmt::format("{} (rule {}{}{})", destination.route->destination, rule_name(rule),
                  in_vrf(rule.vrf), rule.failover ? ", failover" : "");
  if (!situation.has_interfaces(rule.vrf, rule.ipv6)) {
    explanation.headline += " has no next hop.";
    explanation.add(fmt::format("VRF {} has no IPv{} interface in the health section, so the "
                                "daemon does not work there.",
                                rule.vrf, rule.ipv6 ? 6 : 4),
                    "Give the rule's interfaces the \"namespace\" of the rule, then restart the "
                    "daemon.");
    return explanation;
  }
  const MemberReport members = report_members(situation, rule);
  for (const std::string& sentence : members.sentences) explanation.add(sentence);
  explanation.is_well = explain_file(situation, destination, members, explanation);
  std::string carriers;
  for (const Carrier& carrier : members.carriers) {
    carriers += (carriers.empty() ? "" : ", ") + carrier.label;
  }
  if (!members.is_complete) {
    explanation.headline += explanation.is_well ? " is routed." : " is not in force.";
  } else if (carriers.empty()) {
    explanation.headline += " has no next hop.";
  } else {
    explanation.headline +=
        fmt::format(" {} {}.", explanation.is_well ? "leads to" : "should lead to", carriers);
  }
  if (explanation.next_step.empty()) explanation.next_step = "none, all is well with it.";
  return explanation;
}

}  // namespace lbctl
