// The time that the tests of one cycle may wait for their receivers: one for all of them.
#include <gmock/gmock.h>

#include <algorithm>
#include <memory>
#include <vector>

#include "support/core_fixture.h"
#include "support/recorded_device.h"
#include "support/virtual_clock/virtual_clock.h"
#include "support/wrapped_calls.h"

using testing::ElementsAre;

namespace {

// Waits for its receiver for so long, if the cycle still gives it that time.
class WaitingTest : public BlankTest {
 public:
  WaitingTest(std::vector<int>& left, int wants) : left_(left), wants_(wants) {}

  void send(LBInterface&, const LBWorkerContext& worker) override {
    EXPECT_EQ(worker.catch_up, nullptr) << "nothing is waited for while probes go out";
  }
  void recv(LBInterface&, const LBWorkerContext& worker) override {
    ASSERT_NE(worker.catch_up, nullptr);
    left_.push_back(worker.catch_up->milliseconds);
    worker.catch_up->milliseconds -= std::min(wants_, worker.catch_up->milliseconds);
  }

 private:
  std::vector<int>& left_;
  const int wants_;
};

class CheckCycleCatchUpTest : public CycleFixture {
 protected:
  CheckCycleCatchUpTest() {
    load(
        "health {\n"
        " interface wan1 {\n nexthop 192.0.2.1\n }\n"
        " interface wan2 {\n nexthop 192.0.2.2\n }\n}\n"
        "rule 1_ipv4 {\n interface wan1 {\n weight 1\n }\n target {\n address 0.0.0.0/0\n }\n}\n");
    for (const char* name : {"wan1", "wan2"}) {
      interface(name).tests.clear();
      for (const int32_t index : {1, 2}) {
        interface(name).tests[index] = std::make_shared<WaitingTest>(left_, 150);
      }
    }
  }

  std::vector<int> left_;  // what each test found
};

}  // namespace

TEST_F(CheckCycleCatchUpTest, AllTestsOfACycleShareAFifthOfASecond) {
  cycle_.run_once();
  EXPECT_THAT(left_, ElementsAre(200, 50, 0, 0));
  EXPECT_EQ(worker_.catch_up, nullptr);
}

TEST_F(CheckCycleCatchUpTest, EveryCycleHasItsOwn) {
  cycle_.run_once();
  left_.clear();
  cycle_.run_once();
  EXPECT_THAT(left_, ElementsAre(200, 50, 0, 0));
}
