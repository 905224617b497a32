// When a cycle asks the kernel to verify next hops.
#include <gmock/gmock.h>

#include <memory>
#include <vector>

#include "support/core_fixture.h"
#include "support/fake_network.h"
#include "support/recorded_device.h"
#include "support/virtual_clock/virtual_clock.h"

using testing::ElementsAre;
using testing::IsEmpty;

namespace {

// Has the outcome that it is told, of an interface that resolves addresses.
class SettledTest : public BlankTest {
 public:
  explicit SettledTest(const int32_t& outcome) : outcome_(outcome) {}

  void send(LBInterface& interface, const LBWorkerContext&) override {
    MutexLock lock(interface.mutex);
    interface.state.no_arp = false;
  }
  void recv(LBInterface& interface, const LBWorkerContext&) override {
    record_result(interface, outcome_, "target");
  }

 private:
  const int32_t& outcome_;
};

class CheckCycleStaleTest : public CycleFixture {
 protected:
  CheckCycleStaleTest() {
    load(
        "health {\n"
        " interface wan1 {\n success-ct 1\n nexthop 192.0.2.1\n }\n"
        " interface wan2 {\n success-ct 1\n nexthop 192.0.2.2\n }\n"
        " interface red1 {\n namespace red\n nexthop 192.0.2.3\n }\n}\n"
        "rule 1_ipv4 {\n interface wan1 {\n weight 1\n }\n target {\n address 0.0.0.0/0\n }\n}\n");
    interface("wan1").tests = {{1, std::make_shared<SettledTest>(outcome1_)}};
    interface("wan2").tests = {{1, std::make_shared<SettledTest>(outcome2_)}};
    interface("red1").tests = {{1, std::make_shared<SettledTest>(outcome1_)}};
  }

  // One cycle; the last bytes of the next hops that were asked about.
  std::vector<int> asked() {
    std::vector<int> hosts;
    CallHook hook(wrapped::send, [&](int, const void* data, size_t size, int) {
      hosts.push_back(static_cast<const uint8_t*>(data)[size - 1]);
      return static_cast<ssize_t>(size);
    });
    cycle_.run_once();
    return hosts;
  }

  FakeNetwork network_;
  int32_t outcome1_ = kProbeFailure;
  int32_t outcome2_ = kProbeSuccess;
};

}  // namespace

TEST_F(CheckCycleStaleTest, FailedInterfacesAreAskedAboutOncePerCycle) {
  EXPECT_THAT(asked(), ElementsAre(1));
  EXPECT_THAT(asked(), ElementsAre(1));
  outcome2_ = kProbeFailure;
  EXPECT_THAT(asked(), ElementsAre(1, 2)) << "in the cycle in which it fails";
}

TEST_F(CheckCycleStaleTest, InterfaceThatHasComeBackIsNotAskedAbout) {
  EXPECT_THAT(asked(), ElementsAre(1));
  outcome1_ = kProbeSuccess;
  EXPECT_THAT(asked(), IsEmpty());
}
