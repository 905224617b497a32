// Keeping of the last routes, through the route decision.
#include "routing/route_keeper.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <climits>
#include <cstdint>
#include <memory>
#include <string>

#include "support/blank_test.h"
#include "support/route_decision_fixture.h"
#include "support/virtual_clock/virtual_clock.h"

using namespace std::chrono_literals;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::Pair;

namespace {

constexpr const char* kBoth = "route 0.0.0.0/0 via 192.0.2.1 weight 1 via 192.0.2.2 weight 1;\n";
constexpr const char* kFirst = "route 0.0.0.0/0 via 192.0.2.1 weight 1;\n";
constexpr const char* kKept = "wan_lb: rule 1_ipv4: no usable interface, last IPv4 routes kept";
constexpr const char* kHeld =
    "wan_lb: VRF default: IPv4 routes of the run before stay until their interfaces settle";
constexpr const char* kLetGo = "wan_lb: VRF default: IPv4 routes follow the interfaces";
constexpr const char* kFollowing = "wan_lb: rule 1_ipv4: IPv4 routes follow the interfaces again";

// A test whose probe can be settled after two seconds.
class TwoSecondTest : public BlankTest {
 public:
  int64_t longest_wait() const override { return 2000; }
};

// One whose reply is there long before the next cycle.
class ShortWaitTest : public BlankTest {
 public:
  int64_t longest_wait() const override { return 100; }
};

// A burst with the largest figures that the configuration takes.
class EndlessTest : public BlankTest {
 public:
  int64_t longest_wait() const override { return int64_t{UINT32_MAX} * 1000; }
};

class RouteKeeperTest : public RouteDecisionFixture {
 protected:
  RouteKeeperTest() {
    config_.options->keeps_last_routes = true;
    for (const auto& [name, nexthop] : {std::pair{"eth0", "192.0.2.1"}, {"eth1", "192.0.2.2"}}) {
      add_uplink(name, nexthop);
      LBInterface& interface = config_.interfaces.at(name);
      interface.tests[1] = std::make_shared<TwoSecondTest>();
      interface.success_ct = 3;
      edit_state(interface,
                 [](InterfaceState& state) { state.target_results["198.51.100.7"] = -1; });
    }
  }

  void activate(bool eth0, bool eth1) {
    set_active(config_.interfaces.at("eth0"), eth0);
    set_active(config_.interfaces.at("eth1"), eth1);
  }
  void settle_as_failed(const std::string& name) {
    edit_state(config_.interfaces.at(name),
               [](InterfaceState& state) { state.failure_counts["198.51.100.7"] = 1; });
  }
  void leave_file(const std::string& body) {
    directory_.write(route_file_, protocol_static_text(body, false));
  }
  std::string decide() {
    decision_.run(config_, worker_of(false));
    return file();
  }
  std::string file() const {
    return directory_.exists(route_file_) ? directory_.read(route_file_) : "(none)";
  }
  static std::string text(const std::string& body) { return protocol_static_text(body, false); }

  LBDecision decision_;
};

}  // namespace

TEST_F(RouteKeeperTest, LastRoutesStayWhileNoInterfaceIsActive) {
  EXPECT_EQ(decide(), text(kBoth));
  activate(true, false);
  EXPECT_EQ(decide(), text(kFirst));
  EXPECT_THAT(log_records(), IsEmpty());

  activate(false, false);
  kills_.clear();
  EXPECT_EQ(decide(), text(kFirst));
  EXPECT_EQ(decide(), text(kFirst));
  EXPECT_THAT(kills_, IsEmpty());
  EXPECT_THAT(log_records(), ElementsAre(LoggedInstance(kKept)));

  clear_log();
  activate(false, true);
  EXPECT_EQ(decide(), text("route 0.0.0.0/0 via 192.0.2.2 weight 1;\n"));
  EXPECT_EQ(kills_.size(), 1);
  EXPECT_THAT(log_records(), ElementsAre(LoggedInstance(kFollowing)));
}

TEST_F(RouteKeeperTest, WithoutTheOptionTheFileIsEmptied) {
  config_.options->keeps_last_routes = false;
  EXPECT_EQ(decide(), text(kBoth));
  activate(false, false);
  EXPECT_EQ(decide(), "");
}

TEST_F(RouteKeeperTest, ActiveInterfaceWithoutANextHopIsNoReasonToLetGo) {
  config_.interfaces.at("eth0").nexthop = "dhcp";
  set_found(config_.interfaces.at("eth0"), "192.0.2.1");
  activate(true, false);
  EXPECT_EQ(decide(), text(kFirst));
  set_found(config_.interfaces.at("eth0"), "");
  EXPECT_EQ(decide(), text(kFirst));
}

TEST_F(RouteKeeperTest, RulesAreKeptOneByOne) {
  LBRule& second = config_.rules["2_ipv4"];
  second.targets["10.0.0.0/8"];
  second.members["eth1"] = {.ipv6 = false, .weight = 1};
  const std::string ten = "route 10.0.0.0/8 via 192.0.2.2 weight 1;\n";
  EXPECT_EQ(decide(), text(kBoth + ten));
  activate(true, false);
  EXPECT_EQ(decide(), text(kFirst + ten));
  EXPECT_THAT(log_records(), ElementsAre(LoggedInstance(
                                 "wan_lb: rule 2_ipv4: no usable interface, last IPv4 routes "
                                 "kept")));
}

TEST_F(RouteKeeperTest, KeptFailoverRouteStaysInTheNotes) {
  rule_.failover = 1;
  decide();
  activate(false, false);
  decide();
  EXPECT_THAT(failover("1_ipv4"), ElementsAre(Pair("0.0.0.0/0", "192.0.2.1")));
}

TEST_F(RouteKeeperTest, NothingIsKeptBeforeThereWasARoute) {
  activate(false, false);
  EXPECT_EQ(decide(), "(none)");
  EXPECT_THAT(log_records(), IsEmpty());
}

TEST_F(RouteKeeperTest, FamiliesAndVrfsAreKeptApart) {
  decide();
  activate(false, false);
  decision_.run(config_, worker_of(true));
  decision_.run(config_, worker_of(false, "red"));
  EXPECT_THAT(log_records(), IsEmpty());
  EXPECT_FALSE(directory_.exists(route_file6_));
}

TEST_F(RouteKeeperTest, RestartWithHealthyLinksChangesNothing) {
  leave_file(kBoth);
  activate(false, false);
  EXPECT_EQ(decide(), text(kBoth));
  activate(true, false);
  EXPECT_EQ(decide(), text(kBoth));  // eth1 is named too, and has not settled yet
  activate(true, true);
  EXPECT_EQ(decide(), text(kBoth));
  EXPECT_THAT(kills_, IsEmpty());
  EXPECT_EQ(call_count("rename"), 0);
  EXPECT_THAT(log_records(), ElementsAre(LoggedInstance(kHeld), LoggedInstance(kLetGo)));
  EXPECT_EQ(written(kDefaultNamespace, false), kBoth);

  activate(false, true);
  EXPECT_EQ(decide(), text("route 0.0.0.0/0 via 192.0.2.2 weight 1;\n"));
}

TEST_F(RouteKeeperTest, InterfaceThatSettlesAsFailedEndsTheHold) {
  leave_file(kBoth);
  activate(true, false);
  EXPECT_EQ(decide(), text(kBoth));
  settle_as_failed("eth1");
  EXPECT_EQ(decide(), text(kFirst));
  EXPECT_EQ(kills_.size(), 1);
}

TEST_F(RouteKeeperTest, InterfaceThatTheFileDoesNotNameIsNotWaitedFor) {
  leave_file(kFirst);
  activate(true, false);
  EXPECT_EQ(decide(), text(kFirst));
  activate(true, true);
  EXPECT_EQ(decide(), text(kBoth));
}

TEST_F(RouteKeeperTest, InterfaceThatStillLooksForItsNextHopMayBeTheOne) {
  config_.interfaces.at("eth1").nexthop = "dhcp";
  leave_file(kBoth);
  activate(true, false);
  EXPECT_EQ(decide(), text(kBoth));
  activate(true, true);
  EXPECT_EQ(decide(), text(kBoth));
  set_found(config_.interfaces.at("eth1"), "192.0.2.2");
  EXPECT_EQ(decide(), text(kBoth));
  EXPECT_THAT(kills_, IsEmpty());
}

TEST_F(RouteKeeperTest, InterfaceOfAnotherVrfIsNotWaitedFor) {
  LBInterface& foreign = add_interface_via(config_, "eth9", "192.0.2.1");
  foreign.vrf = "red";
  edit_state(foreign, [](InterfaceState& state) { state.target_results["198.51.100.7"] = -1; });
  leave_file(kFirst);
  activate(true, false);
  decide();
  activate(true, true);
  EXPECT_EQ(decide(), text(kBoth));
}

TEST_F(RouteKeeperTest, RulesOfTheSameDestinationTakeTheirRoutesInTurn) {
  LBRule& second = config_.rules["2_ipv4"];
  second.targets["0.0.0.0/0"];
  second.members["eth1"] = {.ipv6 = false, .weight = 1};
  const std::string left = std::string(kBoth) + "route 0.0.0.0/0 via 192.0.2.2 weight 1;\n";
  leave_file(left);
  activate(false, false);
  settle_as_failed("eth0");
  settle_as_failed("eth1");
  EXPECT_EQ(decide(), text(left));
  EXPECT_THAT(kills_, IsEmpty());
}

TEST_F(RouteKeeperTest, HoldEndsAfterTheLongestDetectionTime) {
  leave_file(kBoth);
  activate(true, false);
  decide();
  virtual_clock::advance(12s);  // one probe more than three, of a cycle and a wait each
  EXPECT_EQ(decide(), text(kBoth));
  virtual_clock::advance(1ms);
  clear_log();
  EXPECT_EQ(decide(), text(kFirst));
  EXPECT_THAT(log_records(),
              ElementsAre(LoggedInstance(std::string(kLetGo) +
                                         ", of which some have not settled in time")));
}

TEST_F(RouteKeeperTest, AllDownAfterARestartKeepsTheFile) {
  leave_file(kBoth);
  activate(false, false);
  decide();
  settle_as_failed("eth0");
  settle_as_failed("eth1");
  EXPECT_EQ(decide(), text(kBoth));
  EXPECT_THAT(kills_, IsEmpty());
  EXPECT_THAT(log_records(),
              ElementsAre(LoggedInstance(kHeld), LoggedInstance(kLetGo), LoggedInstance(kKept)));
}

TEST_F(RouteKeeperTest, FileThatSomebodyChangedIsWrittenAnewAfterTheHold) {
  const std::string changed = text(kBoth) + "# by hand\n";
  directory_.write(route_file_, changed);
  activate(true, false);
  EXPECT_EQ(decide(), changed);
  EXPECT_THAT(kills_, IsEmpty());
  activate(true, true);
  EXPECT_EQ(decide(), text(kBoth));
  EXPECT_EQ(kills_.size(), 1);
}

TEST_F(RouteKeeperTest, ForeignFileHoldsNothingUp) {
  directory_.write(route_file_, "protocol static {\n};\n");
  activate(true, false);
  EXPECT_EQ(decide(), text(kFirst));
}

TEST_F(RouteKeeperTest, DeviceInTheFileTellsTheInterface) {
  config_.options->bird2_routes = true;
  config_.interfaces.at("eth1").nexthop = "192.0.2.1";
  const std::string first = "route 0.0.0.0/0 via 192.0.2.1%'eth0' onlink weight 1;\n";
  leave_file(first);
  add_uplink("eth2", "192.0.2.3");
  activate(true, false);
  // Not waited for eth1, which has the same next hop.
  EXPECT_EQ(decide(), text("route 0.0.0.0/0 via 192.0.2.1%'eth0' onlink weight 1"
                           " via 192.0.2.3%'eth2' onlink weight 1;\n"));
}

TEST_F(RouteKeeperTest, RoutesOfRulesThatAreGoneAreLetGo) {
  leave_file(std::string(kBoth) + "route 10.0.0.0/8 via 192.0.2.1 weight 1;\n");
  activate(true, true);
  EXPECT_EQ(decide(), text(kBoth));
}

TEST_F(RouteKeeperTest, RouteGoesToTheRuleWhoseMembersItNames) {
  // The first rule had no route yet when the run before ended.
  rule_.members.erase("eth1");
  rule_.targets["0.0.0.0/0"].metric = 10;
  LBRule& second = config_.rules["2_ipv4"];
  second.targets["0.0.0.0/0"].metric = 20;
  second.members["eth1"] = {.ipv6 = false, .weight = 1};
  const std::string left = "route 0.0.0.0/0 via 192.0.2.2 weight 1 metric 20;\n";
  leave_file(left);
  activate(false, true);
  settle_as_failed("eth0");
  EXPECT_EQ(decide(), text(left));
  EXPECT_THAT(kills_, IsEmpty());
  EXPECT_THAT(log_records(), ElementsAre(LoggedInstance(kHeld), LoggedInstance(kLetGo)));
}

TEST_F(RouteKeeperTest, WaitsAreLookedAtOncePerCycle) {
  for (auto& [name, interface] : config_.interfaces) {
    interface.tests[1] = std::make_shared<ShortWaitTest>();
  }
  leave_file(kBoth);
  activate(true, false);
  decide();
  // Three replies, each seen in the cycle after its request's, and a cycle to find the next hop.
  virtual_clock::advance(7s);
  EXPECT_EQ(decide(), text(kBoth));
}

TEST_F(RouteKeeperTest, EndlessDetectionTimeIsNoShortOne) {
  config_.interfaces.at("eth1").success_ct = INT_MAX;
  config_.interfaces.at("eth1").tests[1] = std::make_shared<EndlessTest>();
  leave_file(kBoth);
  activate(true, false);
  decide();
  virtual_clock::advance(60s);
  EXPECT_EQ(decide(), text(kBoth));
}
