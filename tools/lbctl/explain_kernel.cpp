#include "lbctl/explain_kernel.h"

#include <algorithm>
#include <set>

#include <fmt/format.h>

#include "lbctl/kernel_table.h"
#include "lbctl/print.h"
#include "platform/places.h"

namespace lbctl {

namespace {

std::set<std::string> addresses_of(const KernelRoute& route) {
  std::set<std::string> addresses;
  for (const KernelNexthop& nexthop : route.nexthops) addresses.insert(nexthop.address);
  return addresses;
}

std::string way_of(const KernelRoute& route) {
  std::string way;
  for (const KernelNexthop& nexthop : route.nexthops) {
    way += way.empty() ? "by " : ", ";
    way += nexthop.address.empty() ? "" : nexthop.address + " ";
    way += "dev " + nexthop.device;
  }
  return fmt::format("{} (metric {}, from {})", way, route.metric, origin_of(route));
}

// Why the routing daemon did not bring the route into the kernel.
void explain_refusal(const Situation& situation, const RuleDump& rule, const StaticRoute& route,
                     const std::vector<const KernelRoute*>& others, const std::string& file_text,
                     Explanation& explanation) {
  const std::string path = route_file_path(rule.vrf, rule.ipv6);
  explanation.add(
      fmt::format("It is in the routing daemon's file {}, but not in the kernel's table.", path));
  for (const KernelRoute* other : others) {
    explanation.add(fmt::format("The kernel's route to it goes {} instead.", way_of(*other)));
  }
  const std::string fault = situation.machine.routing_daemon_fault(rule.vrf);
  if (!fault.empty()) {
    explanation.add(fmt::format("The routing daemon does not seem to run: {}.", fault),
                    fmt::format("Start the routing daemon with {} as its pid file (bird -P).",
                                routing_pid_path(rule.vrf)));
    return;
  }
  const std::string without = situation.machine.bird_configuration_without(rule.vrf, path);
  if (!without.empty()) {
    explanation.add(
        fmt::format("The routing daemon does not read it: its configuration {} has no line that "
                    "includes it.",
                    without),
        fmt::format("Add the line include \"{}\"; to {}, and have it read that: birdc configure",
                    path, without));
    return;
  }
  const BirdVerdict verdict = situation.machine.bird(file_text, path);
  if (verdict.is_installed && !verdict.accepts) {
    explanation.add(
        fmt::format("bird refuses the whole file: {}.", verdict.words),
        situation.configuration == nullptr
            ? "Mend what it names: lbctl check FILE, and lbctl routes FILE --check-bird"
            : fmt::format("Mend what it names: lbctl check {}, and lbctl routes {} --check-bird",
                          situation.configuration->path, situation.configuration->path));
    return;
  }
  explanation.next_step = fmt::format(
      "See what the routing daemon makes of it: birdc show route for {} all. Its next hop must be "
      "within a prefix of its interface, or the option \"routing-daemon bird2\" set.",
      canonical_destination(route.destination, rule.ipv6));
}

}  // namespace

bool explain_kernel(const Situation& situation, const RuleDump& rule, const StaticRoute& route,
                    const std::string& file_text, Explanation& explanation) {
  const auto table = situation.machine.kernel_routes(rule.vrf, rule.ipv6);
  if (!table) {
    const std::string refusal = situation.machine.vrf_refusal(rule.vrf);
    explanation.add(fmt::format("It is in the routing daemon's file; the kernel's table was not "
                                "looked at: {}.",
                                refusal.empty() ? "it could not be read" : refusal),
                    "Ask again as root to be told whether it is in force.");
    return true;
  }
  std::set<std::string> wanted;
  for (const Nexthop& nexthop : route.nexthops) wanted.insert(nexthop.address);
  const std::string destination = canonical_destination(route.destination, rule.ipv6);
  std::vector<const KernelRoute*> there;
  for (const KernelRoute& candidate : *table) {
    if (candidate.destination == destination) there.push_back(&candidate);
  }
  std::stable_sort(there.begin(), there.end(),
                   [](const KernelRoute* first, const KernelRoute* second) {
                     return first->metric < second->metric;
                   });
  // The routing daemon may merge routes of several rules into one. Another program's route by the
  // same next hop stays there when that one fails.
  const auto has_it = [&](const KernelRoute* candidate) {
    if (!is_routing_daemons(*candidate)) return false;
    const std::set<std::string> used = addresses_of(*candidate);
    return std::includes(used.begin(), used.end(), wanted.begin(), wanted.end());
  };
  const auto own = std::find_if(there.begin(), there.end(), has_it);
  if (own == there.end()) {
    explain_refusal(situation, rule, route, there, file_text, explanation);
    return false;
  }
  if (own == there.begin()) return true;
  explanation.add(
      fmt::format("It is in the kernel's table with metric {}, but another route is preferred: {}.",
                  (*own)->metric, way_of(*there.front())),
      "Take the other route away, or give it a higher metric than the routing daemon's.");
  return false;
}

}  // namespace lbctl
