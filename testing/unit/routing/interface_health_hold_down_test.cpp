// "hold-down": an interface that failed comes back only after it was healthy for that long.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "support/interface_health_fixture.h"

using namespace std::chrono_literals;

namespace {

class InterfaceHealthHoldDownTest : public InterfaceHealthFixture {
 protected:
  InterfaceHealthHoldDownTest() { interface_.hold_down = 30; }

  // Evaluates with this settled result; whether the interface is then active.
  bool evaluate(int32_t result) {
    settle(kTarget, result);
    evaluate_state(interface_, worker_);
    return interface_.snapshot().active;
  }
  bool is_active_after(std::chrono::nanoseconds time) {
    virtual_clock::advance(time);
    return evaluate(0);
  }
};

}  // namespace

TEST_F(InterfaceHealthHoldDownTest, FirstActivationIsNotHeld) {
  EXPECT_FALSE(evaluate(-1));
  EXPECT_TRUE(is_active_after(1s));
}

TEST_F(InterfaceHealthHoldDownTest, ReturnsOnceTheLastUnhealthyEvaluationIsThatLongAgo) {
  evaluate(0);
  EXPECT_FALSE(evaluate(-1));
  EXPECT_FALSE(is_active_after(10s));
  EXPECT_FALSE(evaluate(-1));
  EXPECT_FALSE(is_active_after(29'999ms));
  EXPECT_EQ(interface_.snapshot().last_success, kStart + 39);
  EXPECT_TRUE(is_active_after(1ms));
}

TEST_F(InterfaceHealthHoldDownTest, EveryFailureHoldsAnew) {
  evaluate(0);
  evaluate(-1);
  EXPECT_TRUE(is_active_after(30s));
  EXPECT_FALSE(evaluate(-1));
  EXPECT_FALSE(is_active_after(29s));
  EXPECT_TRUE(is_active_after(1s));
}

TEST_F(InterfaceHealthHoldDownTest, LinkThatFlapsChangesOnce) {
  evaluate(0);
  clear_log();
  for (int i = 0; i < 50; ++i) {
    virtual_clock::advance(1s);
    EXPECT_FALSE(evaluate(-1));
    EXPECT_FALSE(is_active_after(1s));
  }
  EXPECT_EQ(log_records().size(), 2);  // the target and the change
}

TEST_F(InterfaceHealthHoldDownTest, WallClockDoesNotMatter) {
  evaluate(0);
  evaluate(-1);
  virtual_clock::set_wall({.tv_sec = kStart + 100'000, .tv_nsec = 0});
  EXPECT_FALSE(evaluate(0));
  virtual_clock::set_wall({.tv_sec = 1, .tv_nsec = 0});
  EXPECT_TRUE(is_active_after(30s));
}

TEST_F(InterfaceHealthHoldDownTest, WithoutItAnInterfaceReturnsAtOnce) {
  interface_.hold_down = 0;
  evaluate(0);
  EXPECT_FALSE(evaluate(-1));
  EXPECT_TRUE(evaluate(0));
}
