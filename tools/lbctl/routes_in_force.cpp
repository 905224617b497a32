// The dumps name a rule's members by their devices and the interfaces by their configured names,
// and nowhere both. Where the two differ the kernel tells which is which: an interface is on the
// device by which its next hop is reached.
#include "lbctl/routes_in_force.h"

#include <algorithm>
#include <iterator>
#include <utility>

#include "packets/family.h"

namespace lbctl {

namespace {

std::string canonical_address(const std::string& text, bool ipv6) {
  in6_addr address{};  // room for an address of either family
  const int family = family_of(ipv6).address_family;
  return address_from_text(family, text, &address) == 1 ? address_to_text(family, &address) : text;
}

// Whether the prefix (canonical) holds the address.
bool contains(const std::string& prefix, const std::string& address, bool ipv6) {
  const size_t slash = prefix.find('/');
  return slash != std::string::npos &&
         canonical_destination(address + prefix.substr(slash), ipv6) == prefix;
}

}  // namespace

RoutesInForce::RoutesInForce(const Dumps& dumps, const std::string& vrf, bool ipv6,
                             const std::vector<KernelRoute>& table)
    : ipv6_(ipv6) {
  for (const InterfaceDump& interface : dumps.interfaces) {
    if (interface.ipv6 == ipv6 && interface.vrf == vrf) interfaces_.push_back(&interface);
  }
  for (const KernelRoute& route : table) note_devices(route);
  for (const RuleDump& rule : dumps.rules) {
    if (rule.ipv6 != ipv6 || rule.vrf != vrf) continue;
    for (const RouteDump& route : rule.routes) {
      std::vector<Way> ways = ways_of(rule, route);
      auto& all = wanted_[canonical_destination(route.destination, ipv6)];
      std::move(ways.begin(), ways.end(), std::back_inserter(all));
    }
  }
  for (const KernelRoute& route : table) {
    if (!wanted_.contains(route.destination)) continue;
    const auto [entry, is_new] = chosen_.try_emplace(route.destination, route);
    if (!is_new && route.metric < entry->second.metric) entry->second = route;
  }
}

void RoutesInForce::note_devices(const KernelRoute& route) {
  // fe80::/64 is on every device, and a default route holds all: they tell nothing.
  const bool tells = !route.destination.starts_with("fe80:") && !route.destination.ends_with("/0");
  for (const KernelNexthop& nexthop : route.nexthops) {
    if (!nexthop.address.empty()) {
      gateways_.emplace(nexthop.device, nexthop.address);
    } else if (tells) {
      prefixes_.emplace(nexthop.device, route.destination);
    }
  }
}

bool RoutesInForce::has(const RuleDump& rule, const RouteDump& route) const {
  const std::string destination = canonical_destination(route.destination, ipv6_);
  const auto chosen = chosen_.find(destination);
  const std::vector<Way> ways = ways_of(rule, route);
  if (chosen == chosen_.end() || ways.empty() || !is_routing_daemons(chosen->second)) return false;
  const std::vector<KernelNexthop>& nexthops = chosen->second.nexthops;
  const auto is_there = [&nexthops](const Way& way) {
    return std::any_of(nexthops.begin(), nexthops.end(),
                       [&way](const KernelNexthop& nexthop) { return matches(way, nexthop); });
  };
  const std::vector<Way>& wanted = wanted_.at(destination);
  const auto is_wanted = [&wanted](const KernelNexthop& nexthop) {
    return std::any_of(wanted.begin(), wanted.end(),
                       [&nexthop](const Way& way) { return matches(way, nexthop); });
  };
  // Without an active member a rule may keep its last routes, by any of them.
  const bool are_there = has_active_member(rule) ? std::all_of(ways.begin(), ways.end(), is_there)
                                                 : std::any_of(ways.begin(), ways.end(), is_there);
  return are_there && std::all_of(nexthops.begin(), nexthops.end(), is_wanted);
}

std::string RoutesInForce::used_instead(const RouteDump& route) const {
  const auto chosen = chosen_.find(canonical_destination(route.destination, ipv6_));
  if (chosen == chosen_.end() || chosen->second.nexthops.empty()) return "";
  if (is_routing_daemons(chosen->second)) return "";
  return origin_of(chosen->second);
}

bool RoutesInForce::matches(const Way& way, const KernelNexthop& nexthop) {
  return way.address == nexthop.address &&
         std::find(way.devices.begin(), way.devices.end(), nexthop.device) != way.devices.end();
}

std::vector<RoutesInForce::Way> RoutesInForce::ways_of(const RuleDump& rule,
                                                       const RouteDump& route) const {
  const bool some_are_active = has_active_member(rule);
  if (!rule.failover) return ways_of_members(rule, some_are_active);
  if (route.nexthop.empty()) return {};
  // Members may have next hops of the same address: the way leads by one that is active.
  Way way{.address = canonical_address(route.nexthop, ipv6_), .devices = {}};
  const auto interfaces = interfaces_of_members(rule);
  for (size_t at = 0; at < rule.members.size(); ++at) {
    if (interfaces[at] == nullptr || interfaces[at]->active || !some_are_active)
      way.devices.push_back(rule.members[at].device);
  }
  return {way};
}

bool RoutesInForce::has_active_member(const RuleDump& rule) const {
  const auto interfaces = interfaces_of_members(rule);
  return std::any_of(interfaces.begin(), interfaces.end(), [](const InterfaceDump* interface) {
    return interface != nullptr && interface->active;
  });
}

std::vector<RoutesInForce::Way> RoutesInForce::ways_of_members(const RuleDump& rule,
                                                               bool active_only) const {
  std::vector<Way> ways;
  const auto interfaces = interfaces_of_members(rule);
  for (size_t at = 0; at < rule.members.size(); ++at) {
    const InterfaceDump* const interface = interfaces[at];
    const MemberDump& member = rule.members[at];
    if (interface == nullptr || interface->nexthop.empty()) continue;
    if (active_only && !interface->active) continue;
    if (member.weight == 0) continue;  // it carries nothing
    ways.push_back({canonical_address(interface->nexthop, ipv6_), {member.device}});
  }
  return ways;
}

// The interface of each member, null where it cannot be told.
std::vector<const InterfaceDump*> RoutesInForce::interfaces_of_members(const RuleDump& rule) const {
  std::vector<const InterfaceDump*> found(rule.members.size(), nullptr);
  std::vector<const InterfaceDump*> left = interfaces_;
  // Those that fit are taken in the order of the interfaces: members are in the order of their
  // configured names as well.
  const auto take = [&](const auto& fits) {
    for (size_t at = 0; at < found.size(); ++at) {
      if (found[at] != nullptr || rule.members[at].ipv6 != ipv6_) continue;
      const auto it = std::find_if(left.begin(), left.end(), [&](const InterfaceDump* interface) {
        return fits(rule.members[at].device, *interface);
      });
      if (it == left.end()) continue;
      found[at] = *it;
      left.erase(it);
    }
  };
  take([](const std::string& device, const InterfaceDump& interface) {
    return interface.name == device;
  });
  take([this](const std::string& device, const InterfaceDump& interface) {
    return !interface.nexthop.empty() && leads_by(device, interface.nexthop);
  });
  const auto unknown = std::count(found.begin(), found.end(), nullptr);
  if (static_cast<size_t>(unknown) == left.size())
    take([](const std::string& /*device*/, const InterfaceDump& /*interface*/) { return true; });
  return found;
}

// Whether a route of the kernel has this next hop by the device, or the device's own prefix has it.
bool RoutesInForce::leads_by(const std::string& device, const std::string& nexthop) const {
  const std::string address = canonical_address(nexthop, ipv6_);
  if (gateways_.contains({device, address})) return true;
  return std::any_of(prefixes_.begin(), prefixes_.end(), [&](const auto& entry) {
    return entry.first == device && contains(entry.second, address, ipv6_);
  });
}

}  // namespace lbctl
