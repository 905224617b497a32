// Next hops from the kernel's default routes.
#include "routing/kernel_routes.h"

#include <gmock/gmock.h>

#include "support/dump_answers.h"
#include "support/model_builder.h"
#include "support/recorded_log.h"

using testing::ElementsAre;
using testing::IsEmpty;

namespace {

class KernelRoutesTest : public testing::Test {
 protected:
  void resolve(bool ipv6 = false, const std::string& vrf = kDefaultNamespace) {
    CallHook hook(wrapped::if_nametoindex, [this](const char* name) {
      const auto index = indices_.find(name);
      return index == indices_.end() ? 0U : index->second;
    });
    resolve_kernel_nexthops(config_, worker_of(ipv6, vrf));
  }

  void answer(const std::vector<Bytes>& entries) {
    kernel_.reads.assign(entries.begin(), entries.end());
    kernel_.reads.push_back(dump_end());
  }

  LBConfig config_;
  DumpAnswers kernel_;
  std::map<std::string, unsigned> indices_{{"wan1", 7}, {"wan2", 8}};
};

const auto kMissing =
    LoggedWarning("Failed to get default route from the kernel on interface wan1");

}  // namespace

TEST(BestGatewayTest, LowestMetricOfTheInterface) {
  const std::vector<DefaultRoute> routes{{7, "192.0.2.1", 200, 0},
                                         {8, "192.0.2.2", 1, 0},
                                         {7, "192.0.2.3", 100, 0},
                                         {7, "192.0.2.4", 100, 0}};
  EXPECT_EQ(best_gateway(routes, 7), "192.0.2.3");
  EXPECT_EQ(best_gateway(routes, 8), "192.0.2.2");
  EXPECT_EQ(best_gateway(routes, 9), "");
  EXPECT_EQ(best_gateway({}, 7), "");
}

TEST(BestGatewayTest, PreferenceDecidesBetweenEquals) {
  const std::vector<DefaultRoute> routes{{7, "fe80::1", 1024, -1},
                                         {7, "fe80::2", 1024, 0},
                                         {7, "fe80::3", 1024, 1},
                                         {7, "fe80::4", 1024, 1},
                                         {7, "fe80::5", 2048, 1}};
  EXPECT_EQ(best_gateway(routes, 7), "fe80::3");
}

TEST_F(KernelRoutesTest, GatewayOfTheFamilyByTheLinuxName) {
  LBInterface& interface = add_interface_via(config_, "dsl", "kernel");
  LBInterface& interface6 = add_interface_via(config_, "dsl", "kernel", true);
  interface.origin = interface6.origin = "wan1";
  answer({default_route("192.0.2.9", 8), default_route("192.0.2.1", 7)});
  resolve();
  EXPECT_EQ(found(interface), "192.0.2.1");
  EXPECT_EQ(found(interface6), "");
  EXPECT_EQ(kernel_.requests.at(0).second.at(16), AF_INET);
  answer({default_route("fe80::1", 7)});
  resolve(true);
  EXPECT_EQ(found(interface6), "fe80::1");
  EXPECT_EQ(kernel_.requests.at(1).second.at(16), AF_INET6);
  EXPECT_THAT(log_records(), IsEmpty());
}

TEST_F(KernelRoutesTest, OneDumpServesTheWholePass) {
  LBInterface& first = add_interface_via(config_, "wan1", "kernel");
  LBInterface& second = add_interface_via(config_, "wan2", "kernel");
  answer({default_route("192.0.2.1", 7), default_route("192.0.2.2", 8)});
  resolve();
  EXPECT_EQ(kernel_.requests.size(), 1u);
  EXPECT_EQ(found(first), "192.0.2.1");
  EXPECT_EQ(found(second), "192.0.2.2");
}

TEST_F(KernelRoutesTest, NothingIsAskedWhereNobodyWantsToKnow) {
  add_interface_via(config_, "wan1", "192.0.2.1");
  add_interface_via(config_, "wan2", "dhcp");
  add_interface_via(config_, "wan3", "Kernel");
  add_interface_via(config_, "wan4", "kernel").vrf = "red";
  add_interface_via(config_, "wan1", "kernel", true);
  resolve();
  EXPECT_EQ(call_count("socket"), 0);
}

TEST_F(KernelRoutesTest, ChangedGatewayIsFollowedAndTheLastOneKept) {
  LBInterface& interface = add_interface_via(config_, "wan1", "kernel");
  answer({default_route("192.0.2.1", 7)});
  resolve();
  answer({default_route("192.0.2.254", 7)});
  resolve();
  EXPECT_EQ(found(interface), "192.0.2.254");
  answer({});
  resolve();
  indices_.clear();  // the interface is gone
  answer({default_route("192.0.2.1", 0)});
  resolve();
  EXPECT_EQ(found(interface), "192.0.2.254");
  EXPECT_THAT(log_records(), IsEmpty());
}

TEST_F(KernelRoutesTest, WarningWhileThereHasBeenNone) {
  LBInterface& interface = add_interface_via(config_, "dsl", "kernel");
  interface.origin = "wan1";
  answer({default_route("192.0.2.9", 8)});
  resolve();
  indices_.clear();
  answer({});
  resolve();
  EXPECT_THAT(log_records(), ElementsAre(kMissing, kMissing));
  EXPECT_EQ(found(interface), "");
}

TEST_F(KernelRoutesTest, NamespaceWithoutATableHasNoRoutes) {
  add_interface_via(config_, "wan1", "kernel");
  kernel_.reads = {error_message(-ENOENT)};
  resolve();
  EXPECT_THAT(log_records(), ElementsAre(kMissing));
}

TEST_F(KernelRoutesTest, FailedDumpChangesNothing) {
  LBInterface& interface = add_interface_via(config_, "wan1", "kernel");
  set_found(interface, "192.0.2.1");
  kernel_.reads = {default_route("192.0.2.9", 7), error_message(-ENOMEM)};
  resolve();
  EXPECT_EQ(found(interface), "192.0.2.1");
  EXPECT_THAT(log_records(),
              ElementsAre(LoggedWarning("Failed to read the kernel's routes, errno = 12")));
}

TEST_F(KernelRoutesTest, OtherVrfsAreLeftAlone) {
  LBInterface& own = add_interface_via(config_, "wan1", "kernel");
  LBInterface& other = add_interface_via(config_, "wan2", "kernel");
  other.vrf = "red";
  answer({default_route("192.0.2.1", 7), default_route("192.0.2.2", 8)});
  resolve();
  EXPECT_EQ(found(own), "192.0.2.1");
  EXPECT_EQ(found(other), "");
}

TEST_F(KernelRoutesTest, NoLockIsHeldOverTheDump) {
  LBInterface& interface = add_interface_via(config_, "wan1", "kernel");
  bool was_free = false;
  CallHook hook(wrapped::socket, [&](int, int, int) {
    if (interface.mutex.try_lock()) {
      was_free = true;
      interface.mutex.unlock();
    }
    errno = EMFILE;
    return -1;
  });
  resolve();
  EXPECT_TRUE(was_free);
}
