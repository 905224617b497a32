// A VRF whose namespace was made anew under its name: the worker stays in the old one.
#include <gmock/gmock.h>

#include "support/core_fixture.h"
#include "support/recorded_device.h"
#include "support/recorded_log.h"
#include "support/wrapped_calls.h"

using testing::ElementsAre;
using testing::IsEmpty;

namespace {

const std::string kMessage =
    "wan_lb: network namespace of VRF red was replaced, daemon must be restarted";

class CheckCycleNamespaceTest : public CycleFixture {
 protected:
  CheckCycleNamespaceTest() : CycleFixture("red") {
    load("health {\n interface wan1 {\n namespace red\n nexthop 192.0.2.1\n }\n}\n");
  }
};

}  // namespace

TEST_F(CheckCycleNamespaceTest, IsLookedForOnceACycle) {
  cycle_.run_once();
  cycle_.run_once();
  EXPECT_THAT(recorded_device::calls(),
              ElementsAre("netns_was_replaced red", "send_and_shift_timeout 1",
                          "netns_was_replaced red", "send_and_shift_timeout 1"));
  EXPECT_THAT(log_records(), IsEmpty());
}

TEST_F(CheckCycleNamespaceTest, IsReportedAndTheWatchdogGoesHungry) {
  recorded_device::set_netns_replaced(true);
  cycle_.run_once();
  EXPECT_THAT(recorded_device::calls(),
              ElementsAre("netns_was_replaced red", "send_and_shift_timeout 0"));
  EXPECT_THAT(log_records(), ElementsAre(LoggedError(kMessage)));
}

TEST_F(CheckCycleNamespaceTest, WorkGoesOnMeanwhile) {
  recorded_device::set_netns_replaced(true);
  add_test(interface("wan1"), 1, "wan1");
  for (int i = 0; i < 2; ++i) cycle_.run_once();
  EXPECT_THAT(events_.all(), ElementsAre("send wan1", "recv wan1", "send wan1", "recv wan1"));
  EXPECT_FALSE(interface("wan1").snapshot().state_changed);
  EXPECT_THAT(directory_.read("out/wlb_ipv4.out"), testing::HasSubstr("Interface:  wan1\n"));
}

TEST_F(CheckCycleNamespaceTest, IsOfNoConcernToTheMainVrf) {
  worker_.vrf = kDefaultNamespace;
  recorded_device::set_netns_replaced(true);
  cycle_.run_once();
  EXPECT_THAT(recorded_device::calls(), ElementsAre("send_and_shift_timeout 1"));
  EXPECT_THAT(log_records(), IsEmpty());
}
