// The state that follows from the settled results.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "support/interface_health_fixture.h"

using namespace std::chrono_literals;
using testing::ElementsAre;
using testing::IsEmpty;

namespace {

class InterfaceHealthEvaluationTest : public InterfaceHealthFixture {};

struct NamedInterface {
  bool ipv6;
  const char* origin;
  const char* text;  // how the lines call it
};

class InterfaceHealthEvaluationLinesTest : public InterfaceHealthEvaluationTest,
                                           public testing::WithParamInterface<NamedInterface> {};

}  // namespace

TEST_F(InterfaceHealthEvaluationTest, NoTargetsMeansNoEvaluation) {
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

TEST_F(InterfaceHealthEvaluationTest, OtherVrfIsNotEvaluated) {
  interface_.vrf = "red";
  settle(kTarget, 0);
  evaluate_state(interface_, worker_);
  EXPECT_FALSE(interface_.snapshot().active);
  EXPECT_EQ(interface_.snapshot().last_success, 0);
  evaluate_state(interface_, worker_of(false, "red"));
  EXPECT_TRUE(interface_.snapshot().active);
}

TEST_F(InterfaceHealthEvaluationTest, FirstHealthyEvaluationChangesToActive) {
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

TEST_F(InterfaceHealthEvaluationTest, StayingActiveOnlyStampsTheSuccess) {
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

TEST_F(InterfaceHealthEvaluationTest, UnhealthyChangesToInactive) {
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

TEST_F(InterfaceHealthEvaluationTest, UnhealthyFromTheStartOnlyStampsTheFailure) {
  settle(kTarget, -1);
  evaluate_state(interface_, worker_);
  const InterfaceState state = interface_.snapshot();
  EXPECT_FALSE(state.active);
  EXPECT_EQ(state.last_failure, kStart);
  EXPECT_EQ(state.last_success, 0);
  EXPECT_EQ(state.last_state_change, 0);
  EXPECT_THAT(log_records(), IsEmpty());
}

TEST_F(InterfaceHealthEvaluationTest, CheckAllNeedsEveryTarget) {
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

TEST_F(InterfaceHealthEvaluationTest, OneHealthyTargetOfManyKeepsActive) {
  for (int i = 1; i <= 20; ++i) settle("192.0.2." + std::to_string(i), i == 13 ? 0 : -1);
  evaluate_state(interface_, worker_);
  EXPECT_TRUE(interface_.snapshot().active);
}

TEST_F(InterfaceHealthEvaluationTest, LinesAreBehindTheirFlag) {
  set_log_flag(0, false);
  settle(kTarget, 0);
  evaluate_state(interface_, worker_);
  EXPECT_TRUE(interface_.snapshot().active);
  EXPECT_THAT(log_records(), IsEmpty());
}

TEST_P(InterfaceHealthEvaluationLinesTest, NameFamilyAndOrigin) {
  const auto [ipv6, origin, text] = GetParam();
  LBInterface& interface = add_interface(config_, "wan1", ipv6);
  interface.origin = origin;
  edit_state(interface, [](InterfaceState& state) { state.target_results[kTarget] = 0; });
  evaluate_state(interface, worker_of(ipv6));
  const std::string name = text;
  EXPECT_THAT(log_records(),
              ElementsAre(LoggedInstance(name + " last check target 192.0.2.9 success"),
                          LoggedInstance(name + " changed state to active")));
}

INSTANTIATE_TEST_SUITE_P(
    Names, InterfaceHealthEvaluationLinesTest,
    testing::Values(NamedInterface{false, "wan1", "IP interface wan1"},
                    NamedInterface{true, "wan1", "IPv6 interface wan1"},
                    NamedInterface{false, "wan1-linux", "IP interface wan1-linux"},
                    NamedInterface{false, "", "IP interface unknown interface"}));
