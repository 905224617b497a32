#include "routing/interface_health.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "support/interface_health_fixture.h"

using testing::ElementsAre;
using testing::IsEmpty;
using testing::Pair;

namespace {

class InterfaceHealthTest : public InterfaceHealthFixture {};

}  // namespace

TEST_F(InterfaceHealthTest, StartsFailedAndChanged) {
  const InterfaceState state = interface_.snapshot();
  EXPECT_FALSE(state.active);
  EXPECT_TRUE(state.state_changed);
  EXPECT_EQ(state.last_success, 0);
  EXPECT_EQ(state.last_failure, 0);
  EXPECT_EQ(state.last_state_change, 0);
  EXPECT_THAT(state.target_results, IsEmpty());
  EXPECT_EQ(interface_.success_ct, 3);
  EXPECT_EQ(interface_.failure_ct, 1);
}

// --- one result ---

TEST_F(InterfaceHealthTest, FirstResultMakesBothCounters) {
  record({0});
  const InterfaceState state = interface_.snapshot();
  EXPECT_THAT(state.success_counts, ElementsAre(Pair(kTarget, 1)));
  EXPECT_THAT(state.failure_counts, ElementsAre(Pair(kTarget, 0)));
  EXPECT_THAT(state.target_results, IsEmpty());  // nothing has settled yet
}

TEST_F(InterfaceHealthTest, DefaultsSettleFailureAtOnceAndSuccessAfterThree) {
  settle(kTarget, 0);
  record({-1});
  EXPECT_EQ(settled(), -1);
  record({0, 0});
  EXPECT_EQ(settled(), -1);
  record({0});
  EXPECT_EQ(settled(), 0);
}

TEST_F(InterfaceHealthTest, FailureThresholdOfTwoForgivesOneLoss) {
  interface_.failure_ct = 2;
  interface_.success_ct = 1;
  record({0, -1});
  EXPECT_EQ(settled(), 0);
  EXPECT_EQ(failures(), 1);
  record({0});  // in between: the count starts over
  EXPECT_EQ(failures(), 0);
  record({-1});
  EXPECT_EQ(settled(), 0);
  record({-1});
  EXPECT_EQ(settled(), -1);
}

TEST_F(InterfaceHealthTest, CountersStopAtTheirCaps) {
  record({0, 0, 0, 0, 0});
  EXPECT_EQ(successes(), 3);
  EXPECT_EQ(failures(), 0);
  interface_.failure_ct = 2;
  record({-1, -1, -1, -1});
  EXPECT_EQ(failures(), 2);
  EXPECT_EQ(successes(), 0);
}

TEST_F(InterfaceHealthTest, OppositeCounterRestartsOnlyWhenTheOwnOneMoves) {
  interface_.failure_ct = 0;  // at its cap from the start: a failure moves nothing
  record({0, 0});
  EXPECT_EQ(successes(), 2);
  record({-1});
  EXPECT_EQ(successes(), 2);
  EXPECT_EQ(failures(), 0);
}

TEST_F(InterfaceHealthTest, ResultAtTheCapIsStoredAgain) {
  record({0, 0, 0});
  settle(kTarget, -1);
  record({0});
  EXPECT_EQ(settled(), 0);
}

TEST_F(InterfaceHealthTest, AnyOtherValueCountsAsSuccessButIsKeptAsItIs) {
  interface_.success_ct = 1;
  record({7});
  EXPECT_EQ(successes(), 1);
  EXPECT_EQ(settled(), 7);  // not 0: the target does not count as healthy
  evaluate_state(interface_, worker_);
  EXPECT_FALSE(interface_.snapshot().active);
}

TEST_F(InterfaceHealthTest, TargetsAreCountedApart) {
  interface_.success_ct = 1;
  record({-1}, "192.0.2.1");
  record({0}, "192.0.2.2");
  EXPECT_EQ(settled("192.0.2.1"), -1);
  EXPECT_EQ(settled("192.0.2.2"), 0);
}

TEST_F(InterfaceHealthTest, CountsOfAnUnknownTargetAreZero) {
  record({0, -1});
  EXPECT_EQ(success_count(interface_.snapshot(), "192.0.2.77"), 0);
  EXPECT_EQ(failure_count(interface_.snapshot(), "192.0.2.77"), 0);
}

TEST_F(InterfaceHealthTest, ResultsAloneChangeNoState) {
  record({0, 0, 0});
  EXPECT_FALSE(interface_.snapshot().active);
  EXPECT_EQ(interface_.snapshot().last_success, 0);
  EXPECT_THAT(log_records(), IsEmpty());
}

// --- changes ---

TEST_F(InterfaceHealthTest, ClearingReachesTheFamilyOfAllVrfs) {
  LBInterface& red = add_interface(config_, "wan2");
  red.vrf = "red";
  LBInterface& other_family = add_interface(config_, "wan3", true);
  clear_state_changed(config_, worker_);
  EXPECT_FALSE(interface_.snapshot().state_changed);
  EXPECT_FALSE(red.snapshot().state_changed);
  EXPECT_TRUE(other_family.snapshot().state_changed);
  clear_state_changed(config_, worker_of(true));
  EXPECT_FALSE(other_family.snapshot().state_changed);
}

TEST_F(InterfaceHealthTest, ChangedInterfacesAreStampedAndLoggedByKey) {
  set_log_flag(3, true);
  interface_.origin = "wan1-linux";
  add_active_interface(config_, "wan0", "192.0.2.1");
  LBInterface& calm = add_interface(config_, "wan2");
  edit_state(calm, [](InterfaceState& state) { state.state_changed = false; });
  add_interface(config_, "wan6", true);

  EXPECT_THAT(changed_interfaces(config_, worker_),
              ElementsAre(Pair("wan0", "ACTIVE"), Pair("wan1", "FAILED")));
  EXPECT_THAT(log_records(),
              ElementsAre(LoggedDebug("Interface wan0 has changed state to ACTIVE"),
                          LoggedDebug("Interface wan1 has changed state to FAILED")));
  EXPECT_EQ(interface_.snapshot().last_state_change, kStart);
  EXPECT_EQ(calm.snapshot().last_state_change, 0);
  EXPECT_TRUE(interface_.snapshot().state_changed);  // clearing is another step
}

TEST_F(InterfaceHealthTest, ChangedInterfaceWithoutADeviceName) {
  set_log_flag(3, true);
  add_interface(config_, "", true);
  EXPECT_THAT(changed_interfaces(config_, worker_of(true)), ElementsAre(Pair("", "FAILED")));
  EXPECT_THAT(log_records(),
              ElementsAre(LoggedDebug("Interface unknown interface has changed state to FAILED")));
}

TEST_F(InterfaceHealthTest, ChangedInterfaceLinesAreBehindTheDebugFlag) {
  EXPECT_THAT(changed_interfaces(config_, worker_), ElementsAre(Pair("wan1", "FAILED")));
  EXPECT_THAT(log_records(), IsEmpty());
}

// --- access by name ---

TEST_F(InterfaceHealthTest, AccessByName) {
  LBInterface& interface = add_active_interface(config_, "wan6", "2001:db8::1", true);
  interface.vrf = "red";
  interface.origin = "eth6";
  EXPECT_TRUE(interface_active(config_, "wan6", true));
  EXPECT_EQ(interface_vrf(config_, "wan6", true), "red");
  EXPECT_EQ(interface_origin(config_, "wan6", true), "eth6");
}

TEST_F(InterfaceHealthTest, AccessToAnUnknownNameGivesDefaults) {
  LBInterface& other_family = add_active_interface(config_, "wan6", "2001:db8::1", true);
  other_family.vrf = "red";
  EXPECT_FALSE(interface_active(config_, "wan6", false));
  EXPECT_EQ(interface_vrf(config_, "wan6", false), "default");
  EXPECT_EQ(interface_origin(config_, "wan6", false), "");
}
