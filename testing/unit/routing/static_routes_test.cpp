#include "routing/static_routes.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "support/model_builder.h"

using testing::ElementsAre;
using testing::IsEmpty;
using testing::Pair;

namespace {

class StaticRoutesTest : public testing::Test {
 protected:
  // A rule with one destination.
  LBRule& add_rule(const std::string& name, const std::string& prefix, int32_t metric = -1) {
    LBRule& rule = config_.rules[name];
    rule.targets[prefix].metric = metric;
    return rule;
  }
  static void add_member(LBRule& rule, const std::string& name, int32_t weight, bool ipv6 = false) {
    rule.members[name] = {.ipv6 = ipv6, .weight = weight};
  }
  LBRule& add_two_uplinks() {
    add_active_interface(config_, "eth0", "192.0.2.1");
    add_active_interface(config_, "eth1", "198.51.100.1");
    LBRule& rule = add_rule("1_ipv4", "0.0.0.0/0");
    add_member(rule, "eth0", 1);
    add_member(rule, "eth1", 2);
    return rule;
  }
  StaticRoutes routes() const { return build_static_routes(config_, false, kDefaultNamespace); }
  std::string body(bool ipv6 = false, const std::string& vrf = kDefaultNamespace) const {
    return build_static_routes(config_, ipv6, vrf).body;
  }

  // The rule of the two uplinks chose one next hop for all.
  void expect_failover(const std::string& body, const std::string& nexthop) const {
    const StaticRoutes built = routes();
    EXPECT_EQ(built.body, body);
    EXPECT_THAT(built.failover_nexthops,
                ElementsAre(Pair("1_ipv4", ElementsAre(Pair("0.0.0.0/0", nexthop)))));
  }
  void expect_nothing() const {
    EXPECT_EQ(body(), "");
    EXPECT_THAT(routes().failover_nexthops, IsEmpty());
  }

  LBConfig config_;
};

}  // namespace

TEST_F(StaticRoutesTest, TwoRulesWithWeightsMetricAndDhcp) {
  add_active_interface(config_, "eth0", "192.0.2.1");
  set_found(add_active_interface(config_, "eth1", "dhcp"), "198.51.100.1");
  LBRule& first = add_rule("1", "0.0.0.0/0", 10);
  add_member(first, "eth0", 1);
  add_member(first, "eth1", 2);
  add_member(add_rule("2", "203.0.113.0/24"), "eth1", 5);

  EXPECT_EQ(body(),
            "route 0.0.0.0/0 via 192.0.2.1 weight 1 metric 10 via 198.51.100.1 weight 2;\n"
            "route 203.0.113.0/24 via 198.51.100.1 weight 5;\n");
}

TEST_F(StaticRoutesTest, NothingWithoutRulesOrInterfaces) {
  EXPECT_EQ(body(), "");
  add_member(add_rule("1_ipv4", "0.0.0.0/0"), "unknown", 1);
  EXPECT_EQ(body(), "");
}

TEST_F(StaticRoutesTest, InactiveInterfacesCarryNothing) {
  add_two_uplinks();
  set_active(config_.interfaces.at("eth0"), false);
  EXPECT_EQ(body(), "route 0.0.0.0/0 via 198.51.100.1 weight 2;\n");
  set_active(config_.interfaces.at("eth1"), false);
  EXPECT_EQ(body(), "");
}

TEST_F(StaticRoutesTest, RulesInTextOrderDestinationsInTextOrder) {
  add_active_interface(config_, "eth0", "192.0.2.1");
  for (const char* name : {"2_ipv4", "10_ipv4"}) {
    add_member(add_rule(name, std::string("10.") + name[0] + ".0.0/16"), "eth0", 1);
  }
  config_.rules["10_ipv4"].targets["10.0.0.0/8"];
  EXPECT_EQ(body(),
            "route 10.0.0.0/8 via 192.0.2.1 weight 1;\n"
            "route 10.1.0.0/16 via 192.0.2.1 weight 1;\n"
            "route 10.2.0.0/16 via 192.0.2.1 weight 1;\n");
}

TEST_F(StaticRoutesTest, RuleWithoutDestinationsGivesNothing) {
  add_two_uplinks().targets.clear();
  EXPECT_EQ(body(), "");
}

TEST_F(StaticRoutesTest, MembersOfTheOtherFamilyAreLeftOut) {
  LBRule& rule = add_two_uplinks();
  add_active_interface(config_, "eth0", "2001:db8::1", true);
  rule.members["eth1"].ipv6 = true;  // names an IPv6 interface that does not exist
  EXPECT_EQ(body(), "route 0.0.0.0/0 via 192.0.2.1 weight 1;\n");
  EXPECT_EQ(body(true), "");
}

TEST_F(StaticRoutesTest, Ipv6Routes) {
  add_active_interface(config_, "eth0", "2001:db8::1", true);
  add_member(add_rule("1_ipv6", "::/0", 5), "eth0", 1, true);
  EXPECT_EQ(body(true), "route ::/0 via 2001:db8::1 weight 1 metric 5;\n");
  EXPECT_EQ(body(false), "");
}

// --- VRFs ---

TEST_F(StaticRoutesTest, RuleOfAnotherVrfContributesNothing) {
  add_two_uplinks().vrf = "red";
  EXPECT_EQ(body(), "");
  EXPECT_EQ(body(false, "red"), "");  // its interfaces are of "default"
  config_.interfaces.at("eth1").vrf = "red";
  EXPECT_EQ(body(false, "red"), "route 0.0.0.0/0 via 198.51.100.1 weight 2;\n");
}

TEST_F(StaticRoutesTest, InterfaceOfAnotherVrfIsLeftOut) {
  add_two_uplinks();
  config_.interfaces.at("eth0").vrf = "red";
  EXPECT_EQ(body(), "route 0.0.0.0/0 via 198.51.100.1 weight 2;\n");
}

// --- metrics and weights ---

TEST_F(StaticRoutesTest, MetricStandsAfterTheFirstNextHopOnly) {
  add_two_uplinks().targets["0.0.0.0/0"].metric = 0;
  EXPECT_EQ(body(), "route 0.0.0.0/0 via 192.0.2.1 weight 1 metric 0 via 198.51.100.1 weight 2;\n");
  set_active(config_.interfaces.at("eth0"), false);
  EXPECT_EQ(body(), "route 0.0.0.0/0 via 198.51.100.1 weight 2 metric 0;\n");
}

TEST_F(StaticRoutesTest, MetricStandsAfterTheFirstNextHopThatIsWritten) {
  LBRule& rule = add_two_uplinks();
  rule.targets["0.0.0.0/0"].metric = 7;
  rule.members["eth0"].weight = 0;
  EXPECT_EQ(body(), "route 0.0.0.0/0 via 198.51.100.1 weight 2 metric 7;\n");
}

TEST_F(StaticRoutesTest, WeightZeroIsNeverUsed) {
  LBRule& rule = add_two_uplinks();
  for (auto& [name, member] : rule.members) member.weight = 0;
  EXPECT_EQ(body(), "");
}

// --- next hops that are found ---

TEST_F(StaticRoutesTest, InterfaceStillWithoutNextHopIsLeftOut) {
  for (const char* word : {"dhcp", "tunnel"}) {
    add_two_uplinks();
    LBInterface& interface = config_.interfaces.at("eth0");
    interface.nexthop = word;
    set_found(interface, "");
    EXPECT_EQ(body(), "route 0.0.0.0/0 via 198.51.100.1 weight 2;\n") << word;
    set_found(interface, "192.0.2.77");
    EXPECT_EQ(body(), "route 0.0.0.0/0 via 192.0.2.77 weight 1 via 198.51.100.1 weight 2;\n");
  }
}

TEST_F(StaticRoutesTest, LiteralNextHopIsUsedAsItStands) {
  add_two_uplinks();
  set_found(config_.interfaces.at("eth0"), "192.0.2.77");  // not discovered: of no account
  EXPECT_EQ(body(), "route 0.0.0.0/0 via 192.0.2.1 weight 1 via 198.51.100.1 weight 2;\n");
}

// --- failover ---

TEST_F(StaticRoutesTest, FailoverUsesTheHeaviest) {
  LBRule& rule = add_two_uplinks();
  rule.failover = 1;
  rule.targets["0.0.0.0/0"].metric = 10;
  expect_failover("route 0.0.0.0/0 via 198.51.100.1 weight 2 metric 10;\n", "198.51.100.1");
}

TEST_F(StaticRoutesTest, FailoverFallsBack) {
  add_two_uplinks().failover = 1;
  set_active(config_.interfaces.at("eth1"), false);
  expect_failover("route 0.0.0.0/0 via 192.0.2.1 weight 1;\n", "192.0.2.1");
}

TEST_F(StaticRoutesTest, FailoverOfEqualsUsesTheFirstName) {
  LBRule& rule = add_two_uplinks();
  rule.failover = 1;
  add_active_interface(config_, "eth2", "203.0.113.1");
  rule.members = {};
  add_member(rule, "eth2", 9);
  add_member(rule, "eth1", 9);
  add_member(rule, "eth0", 1);
  expect_failover("route 0.0.0.0/0 via 198.51.100.1 weight 9;\n", "198.51.100.1");
}

// The choice comes before the next hops: a failover rule does not step over its best interface.
TEST_F(StaticRoutesTest, FailoverWaitsForTheBestInterfacesNextHop) {
  add_two_uplinks().failover = 1;
  config_.interfaces.at("eth1").nexthop = "dhcp";
  expect_nothing();
}

TEST_F(StaticRoutesTest, FailoverRecordsEveryDestination) {
  LBRule& rule = add_two_uplinks();
  rule.failover = 1;
  rule.targets["10.0.0.0/8"];
  EXPECT_THAT(routes().failover_nexthops.at("1_ipv4"),
              ElementsAre(Pair("0.0.0.0/0", "198.51.100.1"), Pair("10.0.0.0/8", "198.51.100.1")));
}

TEST_F(StaticRoutesTest, NoRecordWithoutFailover) {
  add_two_uplinks();
  EXPECT_THAT(routes().failover_nexthops, IsEmpty());
}

TEST_F(StaticRoutesTest, FailoverWithWeightZeroGivesNothing) {
  LBRule& rule = add_two_uplinks();
  rule.failover = 1;
  for (auto& [name, member] : rule.members) member.weight = 0;
  expect_nothing();
}

// --- the file's text ---

TEST(StaticRoutesTextTest, OneBlockPerLine) {
  EXPECT_EQ(protocol_static_text("route 0.0.0.0/0 a;\nroute 203.0.113.0/24 b;\n", false),
            "protocol static {\nipv4 {table master4;};\ncheck link 1;\nroute 0.0.0.0/0 a;\n};\n"
            "protocol static {\nipv4 {table master4;};\ncheck link 1;\n"
            "route 203.0.113.0/24 b;\n};\n");
  EXPECT_EQ(protocol_static_text("route ::/0 via fe80::1 weight 1;\n", true),
            "protocol static {\nipv6 {table master6;};\ncheck link 1;\n"
            "route ::/0 via fe80::1 weight 1;\n};\n");
}

TEST(StaticRoutesTextTest, EmptyBodyIsAnEmptyFile) {
  EXPECT_EQ(protocol_static_text("", false), "");
}
