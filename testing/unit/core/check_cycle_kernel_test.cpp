// The end of a cycle asks for the kernel's routes, after leases and tunnels.
#include <gmock/gmock.h>

#include "core/check_cycle.h"
#include "support/core_fixture.h"
#include "support/dump_answers.h"
#include "support/wrapped_calls.h"

using testing::IsEmpty;

namespace {

class CheckCycleKernelTest : public CoreFixture {
 protected:
  void run(const std::string& nexthop) {
    load("health {\n interface wan1 {\n nexthop " + nexthop + "\n }\n}\n");
    interface("wan1").tests.clear();
    LBWorkerContext worker;
    worker.daemon = &daemon_;
    worker.vrf = kDefaultNamespace;
    CallHook index(wrapped::if_nametoindex, [](const char*) { return 7U; });
    DumpAnswers kernel;
    kernel.reads = {default_route("192.0.2.1", 7), dump_end()};
    CheckCycle(worker).run_once();
    asked_ = kernel.requests.size();
  }

  size_t asked_ = 0;
  const Fault no_commands_{"popen", ENOMEM};
};

}  // namespace

TEST_F(CheckCycleKernelTest, OncePerCycle) {
  run("kernel");
  EXPECT_EQ(interface("wan1").gateway(), "192.0.2.1");
  EXPECT_EQ(asked_, 1u);
}

TEST_F(CheckCycleKernelTest, NotForOthers) {
  run("192.0.2.9");
  EXPECT_EQ(asked_, 0u);
}
