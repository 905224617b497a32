// Interface names and namespaces with the kernel itself. The interfaces and mounts live in the
// namespaces that the test program was started in.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <net/if.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
#include <fstream>
#include <string>
#include <thread>

#include "platform/clock.h"
#include "platform/interface_names.h"
#include "platform/netns.h"

namespace {

// The test's own namespaces only: without them the commands below would touch the machine.
class KernelPlatformTest : public testing::Test {
 protected:
  void SetUp() override {
    std::ifstream map("/proc/self/uid_map");
    unsigned long inside = 0;
    unsigned long outside = 0;
    unsigned long count = 0;
    map >> inside >> outside >> count;
    ASSERT_EQ(count, 1u) << "run this program under unshare -Urnm";
  }

  static void run(const std::string& command) {
    ASSERT_EQ(std::system(command.c_str()), 0) << command;
  }

  static std::string name_of(const char* interface) {
    return interfaces_linux_to_zel_name_static(interface, 0);
  }
};

}  // namespace

TEST_F(KernelPlatformTest, AliasIsTheDeviceName) {
  run("ip link add lbname0 type veth peer name lbname1");
  EXPECT_EQ(name_of("lbname0"), "lbname0");
  run("ip link set lbname0 alias 'Uplink A'");
  EXPECT_EQ(name_of("lbname0"), "Uplink A");
  run("ip link set lbname0 alias ''");
  EXPECT_EQ(name_of("lbname0"), "lbname0");
  run("ip link del lbname0");
  EXPECT_EQ(name_of("lbname0"), "lbname0");
}

TEST_F(KernelPlatformTest, LongestNameAndAliasAreTaken) {
  const std::string alias(255, 'a');
  run("ip link add lbname789012345 type veth peer name lbname1");
  run("ip link set lbname789012345 alias " + alias);
  EXPECT_EQ(name_of("lbname789012345"), alias);
  EXPECT_EQ(name_of("lbname7890123456"), "lbname7890123456");
  run("ip link del lbname789012345");
}

TEST_F(KernelPlatformTest, NamespaceIsEnteredByTheCallingThreadAlone) {
  // Named namespaces need a directory that this program may write to.
  ASSERT_EQ(mount("tmpfs", "/run", "tmpfs", 0, nullptr), 0);
  ASSERT_EQ(mkdir("/run/netns", 0755), 0);
  run("ip netns add red");
  run("ip -n red link add lbred type veth peer name lbred1");
  run("ip -n red link set lbred alias Red");

  EXPECT_EQ(name_of("lbred"), "lbred");
  std::thread([] {
    EXPECT_EQ(lh_netns_set("blue"), -1);
    EXPECT_EQ(errno, ENOENT);
    EXPECT_EQ(lh_netns_set("red"), 0);
    EXPECT_NE(if_nametoindex("lbred"), 0u);
    EXPECT_EQ(name_of("lbred"), "Red");
  }).join();
  EXPECT_EQ(if_nametoindex("lbred"), 0u);
  EXPECT_EQ(name_of("lbred"), "lbred");
  run("ip netns del red");
  EXPECT_EQ(umount2("/run", MNT_DETACH), 0);
}

TEST_F(KernelPlatformTest, SleepLastsAtLeastItsTime) {
  const timespec before = monotonic_now();
  sleep_for({0, 20'000'000});
  const timespec after = monotonic_now();
  const long passed =
      (after.tv_sec - before.tv_sec) * 1000 + (after.tv_nsec - before.tv_nsec) / 1'000'000;
  EXPECT_GE(passed, 20);
  EXPECT_NEAR(static_cast<double>(wall_now().tv_sec), static_cast<double>(time(nullptr)), 1.0);
}
