// The document that scripts read.
#include "lbctl/status_json.h"

#include <gtest/gtest.h>

#include <nlohmann/json.hpp>

#include "lbctl/sample_dumps.h"

namespace lbctl {
namespace {

TEST(StatusJsonTest, WholeDocument) {
  Status status;
  status.written = 951782400;
  status.stale = true;
  InterfaceDump interface = interface_dump("wan1", false, "");
  interface.nexthop_is_dhcp = true;
  interface.source_address = "192.0.2.10";
  interface.tests = {test_dump("198.51.100.8", 2)};
  interface.tests[0].measurement = {4, 40, 35, 50, 20, 200};
  status.interfaces = {interface};
  const RuleDump rule = rule_dump(7, false, {{"eth0", 3}}, {{"10.0.0.0/8", ""}});
  status.rules = {{rule, {{rule.routes[0], std::nullopt, ""}}}};
  EXPECT_EQ(status_document(status).dump(1), R"({
 "schema": "wan_lb/status/1",
 "written": "2000-02-29T00:00:00Z",
 "stale": true,
 "interfaces": [
  {
   "name": "wan1",
   "family": 4,
   "vrf": "default",
   "state": "failed",
   "state_age": 12000,
   "nexthop": null,
   "nexthop_source": "dhcp",
   "source_address": "192.0.2.10",
   "success_ct": 3,
   "failure_ct": 2,
   "tests": [
    {
     "target": "198.51.100.8",
     "result": "failure",
     "success_count": 0,
     "failure_count": 2,
     "measurement": {
      "loss": {
       "value": 40,
       "limit": 20
      },
      "rtt": {
       "value": 0.035,
       "limit": 0.2
      },
      "jitter": {
       "value": 0.004,
       "limit": 0.05
      }
     }
    }
   ]
  }
 ],
 "rules": [
  {
   "number": 7,
   "family": 4,
   "vrf": "default",
   "failover": false,
   "members": [
    {
     "device": "eth0",
     "weight": 3,
     "family": 4
    }
   ],
   "routes": [
    {
     "destination": "10.0.0.0/8",
     "metric": null,
     "nexthop": null,
     "in_force": null
    }
   ]
  }
 ]
})");
}

TEST(StatusJsonTest, OtherWords) {
  Status status;
  InterfaceDump interface = interface_dump("wan1", true, "fe80::1", true);
  interface.nexthop_is_tunnel = true;
  interface.change_age = -5;  // the clock was set back
  interface.tests = {test_dump("", 0), test_dump("", 1)};
  status.interfaces = {interface, interface_dump("wan2", true, "192.0.2.1")};
  RuleDump rule = rule_dump(7, true, {}, {{"::/0", "fe80::1"}}, true);
  rule.routes[0].metric = 0;
  status.rules = {{rule, {{rule.routes[0], false, "a DHCP client"}}}};
  const Json found = status_document(status);
  EXPECT_EQ(found["interfaces"][0]["family"], 6);
  EXPECT_EQ(found["interfaces"][0]["state"], "active");
  EXPECT_EQ(found["interfaces"][0]["state_age"], 0);
  EXPECT_EQ(found["interfaces"][0]["nexthop"], "fe80::1");
  EXPECT_EQ(found["interfaces"][0]["nexthop_source"], "tunnel");
  EXPECT_EQ(found["interfaces"][0]["source_address"], nullptr);
  EXPECT_EQ(found["interfaces"][0]["tests"][0]["result"], "none");
  EXPECT_EQ(found["interfaces"][0]["tests"][0]["measurement"], nullptr);
  EXPECT_EQ(found["interfaces"][0]["tests"][1]["result"], "success");
  EXPECT_EQ(found["interfaces"][1]["nexthop_source"], "static");
  EXPECT_EQ(found["rules"][0]["routes"][0]["nexthop"], "fe80::1");
  EXPECT_EQ(found["rules"][0]["routes"][0]["metric"], 0);
  EXPECT_EQ(found["rules"][0]["routes"][0]["in_force"], false);
  EXPECT_EQ(found["rules"][0]["failover"], true);
}

}  // namespace
}  // namespace lbctl
