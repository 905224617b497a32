// The route decision on a model with uplinks of both families, and on the routing daemon's files in
// a directory of the test's own.
#pragma once

#include <map>
#include <string>

#include "routing/route_decision.h"
#include "support/model_builder.h"
#include "support/routing_fixture.h"

class RouteDecisionFixture : public RoutingFixture {
 protected:
  // Adds an active interface, a destination and a member to the rule of the family.
  void add_uplink(const std::string& name, const std::string& nexthop, int32_t weight = 1) {
    add_active_interface(config_, name, nexthop);
    rule_.targets["0.0.0.0/0"];
    rule_.members[name] = {.ipv6 = false, .weight = weight};
  }
  void add_uplink6(const std::string& name, const std::string& nexthop) {
    add_active_interface(config_, name, nexthop, true);
    rule6_.targets["::/0"];
    rule6_.members[name] = {.ipv6 = true, .weight = 1};
  }
  void run(bool ipv6 = false, const std::string& vrf = kDefaultNamespace) {
    LBDecision().run(config_, worker_of(ipv6, vrf));
  }

  // What was noted.
  std::map<std::string, std::string> failover(const std::string& rule) const {
    return config_.copy_written().failover_nexthops[rule];
  }
  std::string written(const std::string& vrf, bool ipv6) const {
    WrittenState written = config_.copy_written();
    return (ipv6 ? written.routes_written6 : written.routes_written)[vrf];
  }

  LBConfig config_;
  LBRule& rule_ = config_.rules["1_ipv4"];
  LBRule& rule6_ = config_.rules["2_ipv6"];
};
