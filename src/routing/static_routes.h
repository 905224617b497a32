// The static routes of one VRF and family: first as a plan, then as text. No files, no lock beyond
// the interfaces' own.
#pragma once

#include <cstdint>
#include <map>
#include <string>
#include <vector>

#include "config/lb_config.h"

class RouteSyntax;

struct Nexthop {
  std::string address;
  std::string device;  // Linux name; empty where a text did not tell it
  int32_t weight = 0;
};

struct StaticRoute {
  std::string destination;
  int32_t metric = -1;  // -1: none
  std::vector<Nexthop> nexthops;
};

struct PlannedRoute {
  std::string target;  // the destination as the rule has it
  StaticRoute route;
};

// What one rule gives: a route per destination that has a next hop, in the destinations' order.
struct RulePlan {
  std::string rule;
  bool failover = false;
  std::vector<PlannedRoute> routes;
};

// Every rule of the VRF, in order, those without routes too.
using RoutePlan = std::vector<RulePlan>;

struct StaticRoutes {
  // One line "route ...;" per destination, in the order of the rules and their destinations.
  std::string body;

  // Per rule name and destination: the next hop of a failover rule.
  std::map<std::string, WrittenState::TextByTarget> failover_nexthops;
};

// True when a member of the family may carry the rule's routes.
bool has_members(const LBRule& rule, bool ipv6);

// The routes that the present interface states give, as far as `syntax` takes them.
RoutePlan plan_static_routes(const LBConfig& config, bool ipv6, const std::string& vrf,
                             const RouteSyntax& syntax);

StaticRoutes write_static_routes(const RoutePlan& plan, const RouteSyntax& syntax);

// Both steps, in the syntax that the configuration's options ask for.
StaticRoutes build_static_routes(const LBConfig& config, bool ipv6, const std::string& vrf);

// The routing daemon's form of the body: one "protocol static" block per line.
std::string protocol_static_text(const std::string& body, bool ipv6);

// The routes in the text of such a file, in order; what `syntax` would not write is left out.
std::vector<StaticRoute> read_static_routes(const std::string& text, bool ipv6,
                                            const RouteSyntax& syntax);
