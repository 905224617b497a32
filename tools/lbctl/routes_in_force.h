// Whether the kernel forwards as the rules of one VRF and family have it.
#pragma once

#include <map>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "lbctl/dumps.h"
#include "lbctl/kernel_table.h"

namespace lbctl {

class RoutesInForce {
 public:
  // `dumps` must outlive the object.
  RoutesInForce(const Dumps& dumps, const std::string& vrf, bool ipv6,
                const std::vector<KernelRoute>& table);

  // Whether of the kernel's routes to the destination the preferred one is the routing daemon's and
  // leads where the rule wants it: to the next hop that a failover rule has chosen, else to those
  // of the active members; where none is active, to that of any member (a kept route). The routing
  // daemon joins the routes of rules that share a destination into one; the others' next hops may
  // then be there too.
  bool has(const RuleDump& rule, const RouteDump& route) const;

  // Who has put the preferred one there, where that is not the routing daemon; else empty. Such a
  // route does not follow the states, wherever it leads.
  std::string used_instead(const RouteDump& route) const;

 private:
  // Where traffic is to go: by any of the devices.
  struct Way {
    std::string address;
    std::vector<std::string> devices;
  };

  void note_devices(const KernelRoute& route);
  std::vector<Way> ways_of(const RuleDump& rule, const RouteDump& route) const;
  std::vector<Way> ways_of_members(const RuleDump& rule, bool active_only) const;
  bool has_active_member(const RuleDump& rule) const;
  std::vector<const InterfaceDump*> interfaces_of_members(const RuleDump& rule) const;
  bool leads_by(const std::string& device, const std::string& nexthop) const;
  static bool matches(const Way& way, const KernelNexthop& nexthop);

  const bool ipv6_;
  std::vector<const InterfaceDump*> interfaces_;  // of the VRF and family
  // What the kernel tells of where addresses are: next hops and prefixes, each with its device.
  std::set<std::pair<std::string, std::string>> gateways_;
  std::set<std::pair<std::string, std::string>> prefixes_;
  std::map<std::string, std::vector<Way>> wanted_;  // by canonical destination, of all rules
  std::map<std::string, KernelRoute> chosen_;       // the preferred one to each wanted destination
};

}  // namespace lbctl
