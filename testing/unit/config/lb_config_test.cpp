// The configuration model: copies and the run-time part.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "config/lb_config.h"
#include "support/config_fixture.h"

using testing::ElementsAre;
using testing::IsEmpty;
using testing::Key;
using testing::Pair;

namespace {

class LBConfigTest : public ConfigTest {
 protected:
  void SetUp() override {
    ASSERT_TRUE(
        read("health {\n interface eth0 {\n nexthop dhcp\n success-ct 9\n failure-ct 8\n"
             " origin o\n source_address s\n check_all\n namespace red\n"
             " test 3 {\n type ping_ext\n target t\n }\n }\n interface6 eth1 {\n }\n}\n"
             "rule 1_ipv4 {\n failover\n target {\n address a\n metric 1\n }\n}\n"));
  }
};

void expect_same_interface(const LBInterface& copy, const LBInterface& original) {
  EXPECT_EQ(copy.name, original.name);
  EXPECT_EQ(copy.origin, original.origin);
  EXPECT_EQ(copy.nexthop, original.nexthop);
  EXPECT_EQ(copy.success_ct, original.success_ct);
  EXPECT_EQ(copy.failure_ct, original.failure_ct);
  EXPECT_EQ(copy.source_address, original.source_address);
  EXPECT_EQ(copy.check_all, original.check_all);
  EXPECT_EQ(copy.ipv6, original.ipv6);
  EXPECT_EQ(copy.vrf, original.vrf);
  EXPECT_EQ(copy.tests, original.tests);  // the same objects
  EXPECT_EQ(copy.snapshot().target_results, original.snapshot().target_results);
}

}  // namespace

TEST_F(LBConfigTest, CopyIsDeepButSharesTheTests) {
  LBConfig copy;
  copy.replace(config_);
  expect_same_interface(copy.interfaces.at("eth0"), eth0());
  expect_same_interface(copy.interfaces6.at("eth1"), eth1());
  EXPECT_EQ(copy.rules.at("1_ipv4").failover, 1);
  EXPECT_EQ(copy.rules.at("1_ipv4").targets.at("a").metric, 1);

  eth0().nexthop = "changed";
  rule().failover = 0;
  EXPECT_EQ(copy.interfaces.at("eth0").nexthop, "dhcp");
  EXPECT_EQ(copy.rules.at("1_ipv4").failover, 1);
}

TEST_F(LBConfigTest, ReplaceLeavesNothingOfTheOldModel) {
  LBConfig active;
  active.rules["9"];
  active.interfaces.try_emplace("old", "old", false);
  {
    MutexLock lock(active.written_mutex);
    active.written.routes_written["default"] = "old";
  }
  {
    MutexLock lock(config_.written_mutex);
    config_.written.routes_written6["red"] = "new";
  }
  active.replace(config_);
  EXPECT_THAT(active.rules, ElementsAre(Key("1_ipv4")));
  EXPECT_THAT(active.interfaces, ElementsAre(Key("eth0")));
  EXPECT_THAT(active.interfaces6, ElementsAre(Key("eth1")));
  MutexLock lock(active.written_mutex);
  EXPECT_THAT(active.written.routes_written, IsEmpty());
  EXPECT_THAT(active.written.routes_written6, ElementsAre(Pair("red", "new")));
}

TEST_F(LBConfigTest, ReplaceByItselfChangesNothing) {
  config_.replace(config_);
  EXPECT_EQ(eth0().success_ct, 9);
}

TEST_F(LBConfigTest, RunTimePartStartsUnknown) {
  const InterfaceState state = eth0().snapshot();
  EXPECT_FALSE(state.active);
  EXPECT_TRUE(state.state_changed);
  EXPECT_EQ(state.last_success, 0);
  EXPECT_EQ(state.last_failure, 0);
  EXPECT_EQ(state.last_state_change, 0);
  EXPECT_EQ(state.nexthop_address, "");
  EXPECT_THAT(state.target_results, ElementsAre(Pair("t", -1)));
  EXPECT_FALSE(state.no_arp.has_value());
}

TEST_F(LBConfigTest, GatewayIsTheConfiguredOrTheDiscoveredNextHop) {
  EXPECT_EQ(eth0().gateway(), "");
  {
    MutexLock lock(eth0().mutex);
    eth0().state.nexthop_address = "192.0.2.1";
  }
  EXPECT_EQ(eth0().gateway(), "192.0.2.1");
  eth0().nexthop = "tunnel";
  EXPECT_EQ(eth0().gateway(), "192.0.2.1");
  eth0().nexthop = "192.0.2.200";
  EXPECT_EQ(eth0().gateway(), "192.0.2.200");
}
