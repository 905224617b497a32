// The next hops of failover rules that the route decision notes.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "support/route_decision_fixture.h"

using testing::ElementsAre;
using testing::IsEmpty;
using testing::Pair;

namespace {

class RouteDecisionFailoverTest : public RouteDecisionFixture {
 protected:
  RouteDecisionFailoverTest() { rule_.failover = 1; }
};

}  // namespace

TEST_F(RouteDecisionFailoverTest, FailoverNextHopFollowsTheStates) {
  add_uplink("eth0", "192.0.2.1");
  add_uplink("eth1", "198.51.100.1", 2);
  run();
  EXPECT_THAT(failover("1_ipv4"), ElementsAre(Pair("0.0.0.0/0", "198.51.100.1")));
  set_active(config_.interfaces.at("eth1"), false);
  run();
  EXPECT_THAT(failover("1_ipv4"), ElementsAre(Pair("0.0.0.0/0", "192.0.2.1")));
  set_active(config_.interfaces.at("eth0"), false);
  run();
  EXPECT_THAT(failover("1_ipv4"), IsEmpty());
}

TEST_F(RouteDecisionFailoverTest, NoNextHopsWithoutFailover) {
  rule_.failover = 0;
  add_uplink("eth0", "192.0.2.1");
  run();
  EXPECT_THAT(failover("1_ipv4"), IsEmpty());
}

TEST_F(RouteDecisionFailoverTest, WorkerOfTheOtherFamilyLeavesNextHopsAlone) {
  add_uplink("eth0", "192.0.2.1");
  add_uplink6("eth0", "2001:db8::1");
  rule6_.failover = 1;
  run(false);
  run(true);
  run(false);
  EXPECT_THAT(failover("1_ipv4"), ElementsAre(Pair("0.0.0.0/0", "192.0.2.1")));
  EXPECT_THAT(failover("2_ipv6"), ElementsAre(Pair("::/0", "2001:db8::1")));
}

TEST_F(RouteDecisionFailoverTest, RuleBelongsToTheFamilyOfItsMembers) {
  add_active_interface(config_, "eth6", "2001:db8::1", true);
  rule_.members["eth6"] = {.ipv6 = true, .weight = 1};
  rule_.targets["0.0.0.0/0"];  // by way of an IPv6 next hop
  run(true);
  run(false);
  EXPECT_THAT(failover("1_ipv4"), ElementsAre(Pair("0.0.0.0/0", "2001:db8::1")));
}

TEST_F(RouteDecisionFailoverTest, WorkerOfAnotherVrfLeavesNextHopsAlone) {
  add_uplink("eth0", "192.0.2.1");
  run();
  run(false, "red");
  EXPECT_THAT(failover("1_ipv4"), ElementsAre(Pair("0.0.0.0/0", "192.0.2.1")));
}

TEST_F(RouteDecisionFailoverTest, RuleOfBothFamiliesIsSharedByDestination) {
  add_uplink("eth0", "192.0.2.1");
  add_active_interface(config_, "eth6", "2001:db8::1", true);
  rule_.members["eth6"] = {.ipv6 = true, .weight = 1};
  rule_.targets["::/0"];
  run(false);
  run(true);
  EXPECT_THAT(failover("1_ipv4"),
              ElementsAre(Pair("0.0.0.0/0", "192.0.2.1"), Pair("::/0", "2001:db8::1")));
  set_active(config_.interfaces.at("eth0"), false);
  run(false);
  EXPECT_THAT(failover("1_ipv4"), ElementsAre(Pair("::/0", "2001:db8::1")));
}
