#include "routing/interface_health.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "support/model_builder.h"
#include "support/recorded_log.h"
#include "support/virtual_clock/virtual_clock.h"

using namespace std::chrono_literals;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::Pair;

namespace {

constexpr int32_t kStart = 1'700'000'000;  // the virtual wall clock
constexpr const char* kTarget = "192.0.2.9";

class InterfaceHealthTest : public testing::Test {
 protected:
  void settle(const std::string& target, int32_t result) {
    edit_state(interface_, [&](InterfaceState& state) { state.target_results[target] = result; });
  }
  void record(std::initializer_list<int32_t> results, const std::string& target = kTarget) {
    for (int32_t result : results) record_result(interface_, result, target);
  }
  int32_t settled(const std::string& target = kTarget) const {
    return interface_.snapshot().target_results.at(target);
  }
  int32_t successes() const { return success_count(interface_.snapshot(), kTarget); }
  int32_t failures() const { return failure_count(interface_.snapshot(), kTarget); }

  LBConfig config_;
  LBInterface& interface_ = add_interface(config_, "wan1");
  LBWorkerContext worker_ = worker_of(false);
};

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

// --- evaluation ---

TEST_F(InterfaceHealthTest, NoTargetsMeansNoEvaluation) {
  edit_state(interface_, [](InterfaceState& state) {
    state.active = true;
    state.state_changed = false;
  });
  evaluate_state(interface_, worker_);
  const InterfaceState state = interface_.snapshot();
  EXPECT_TRUE(state.active);
  EXPECT_FALSE(state.state_changed);
  EXPECT_EQ(state.last_success, 0);
  EXPECT_EQ(state.last_failure, 0);
  EXPECT_EQ(state.last_state_change, 0);
  EXPECT_THAT(log_records(), IsEmpty());
}

TEST_F(InterfaceHealthTest, OtherVrfIsNotEvaluated) {
  interface_.vrf = "red";
  settle(kTarget, 0);
  evaluate_state(interface_, worker_);
  EXPECT_FALSE(interface_.snapshot().active);
  EXPECT_EQ(interface_.snapshot().last_success, 0);
  evaluate_state(interface_, worker_of(false, "red"));
  EXPECT_TRUE(interface_.snapshot().active);
}

TEST_F(InterfaceHealthTest, FirstHealthyEvaluationChangesToActive) {
  edit_state(interface_, [](InterfaceState& state) { state.state_changed = false; });
  settle("192.0.2.2", -1);
  settle("192.0.2.1", 0);
  evaluate_state(interface_, worker_);
  const InterfaceState state = interface_.snapshot();
  EXPECT_TRUE(state.active);
  EXPECT_TRUE(state.state_changed);
  EXPECT_EQ(state.last_success, kStart);
  EXPECT_EQ(state.last_failure, 0);
  EXPECT_EQ(state.last_state_change, kStart);
  EXPECT_THAT(log_records(),
              ElementsAre(LoggedInstance("IP interface wan1 last check target 192.0.2.1 success"),
                          LoggedInstance("IP interface wan1 last check target 192.0.2.2 failure"),
                          LoggedInstance("IP interface wan1 changed state to active")));
}

TEST_F(InterfaceHealthTest, StayingActiveOnlyStampsTheSuccess) {
  settle(kTarget, 0);
  evaluate_state(interface_, worker_);
  clear_state_changed(config_, worker_);
  clear_log();
  virtual_clock::advance(5s);
  evaluate_state(interface_, worker_);
  const InterfaceState state = interface_.snapshot();
  EXPECT_EQ(state.last_success, kStart + 5);
  EXPECT_EQ(state.last_state_change, kStart);
  EXPECT_FALSE(state.state_changed);
  EXPECT_THAT(log_records(), IsEmpty());
}

TEST_F(InterfaceHealthTest, UnhealthyChangesToInactive) {
  settle(kTarget, 0);
  evaluate_state(interface_, worker_);
  clear_state_changed(config_, worker_);
  clear_log();
  virtual_clock::advance(7s);
  settle(kTarget, -1);
  evaluate_state(interface_, worker_);
  const InterfaceState state = interface_.snapshot();
  EXPECT_FALSE(state.active);
  EXPECT_TRUE(state.state_changed);
  EXPECT_EQ(state.last_success, kStart);
  EXPECT_EQ(state.last_failure, kStart + 7);
  EXPECT_EQ(state.last_state_change, kStart + 7);
  EXPECT_THAT(log_records(),
              ElementsAre(LoggedInstance("IP interface wan1 last check target 192.0.2.9 failure"),
                          LoggedInstance("IP interface wan1 changed state to inactive")));
}

TEST_F(InterfaceHealthTest, UnhealthyFromTheStartOnlyStampsTheFailure) {
  settle(kTarget, -1);
  evaluate_state(interface_, worker_);
  const InterfaceState state = interface_.snapshot();
  EXPECT_FALSE(state.active);
  EXPECT_EQ(state.last_failure, kStart);
  EXPECT_EQ(state.last_success, 0);
  EXPECT_EQ(state.last_state_change, 0);
  EXPECT_THAT(log_records(), IsEmpty());
}

TEST_F(InterfaceHealthTest, CheckAllNeedsEveryTarget) {
  for (const char* target : {"192.0.2.1", "192.0.2.2"}) settle(target, 0);
  settle("192.0.2.3", -1);  // as configured, not settled yet
  interface_.check_all = true;
  evaluate_state(interface_, worker_);
  EXPECT_FALSE(interface_.snapshot().active);

  interface_.check_all = false;
  evaluate_state(interface_, worker_);
  EXPECT_TRUE(interface_.snapshot().active);

  interface_.check_all = true;
  settle("192.0.2.3", 0);
  evaluate_state(interface_, worker_);
  EXPECT_TRUE(interface_.snapshot().active);
}

TEST_F(InterfaceHealthTest, OneHealthyTargetOfManyKeepsActive) {
  for (int i = 1; i <= 20; ++i) settle("192.0.2." + std::to_string(i), i == 13 ? 0 : -1);
  evaluate_state(interface_, worker_);
  EXPECT_TRUE(interface_.snapshot().active);
}

TEST_F(InterfaceHealthTest, Ipv6LinesSaySo) {
  LBInterface& interface = add_interface(config_, "wan1", true);
  edit_state(interface, [](InterfaceState& state) { state.target_results["2001:db8::1"] = 0; });
  evaluate_state(interface, worker_of(true));
  EXPECT_THAT(
      log_records(),
      ElementsAre(LoggedInstance("IPv6 interface wan1 last check target 2001:db8::1 success"),
                  LoggedInstance("IPv6 interface wan1 changed state to active")));
}

TEST_F(InterfaceHealthTest, LinesNameTheOrigin) {
  interface_.origin = "wan1-linux";
  settle(kTarget, 0);
  evaluate_state(interface_, worker_);
  EXPECT_THAT(
      log_records(),
      ElementsAre(LoggedInstance("IP interface wan1-linux last check target 192.0.2.9 success"),
                  LoggedInstance("IP interface wan1-linux changed state to active")));
}

TEST_F(InterfaceHealthTest, LinesOfAnInterfaceWithoutADeviceName) {
  interface_.origin = "";
  settle(kTarget, 0);
  evaluate_state(interface_, worker_);
  EXPECT_THAT(
      log_records(),
      ElementsAre(
          LoggedInstance("IP interface unknown interface last check target 192.0.2.9 success"),
          LoggedInstance("IP interface unknown interface changed state to active")));
}

TEST_F(InterfaceHealthTest, LinesAreBehindTheirFlag) {
  set_log_flag(0, false);
  settle(kTarget, 0);
  evaluate_state(interface_, worker_);
  EXPECT_TRUE(interface_.snapshot().active);
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
