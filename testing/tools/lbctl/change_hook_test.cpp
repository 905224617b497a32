// Changes between dumps, and the command that is run for them.
#include "lbctl/change_hook.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <chrono>
#include <fstream>
#include <sstream>
#include <string>
#include <thread>

#include "platform/clock.h"

namespace lbctl {
namespace {

using testing::ElementsAre;
using testing::HasSubstr;

InterfaceDump interface(const std::string& name, bool active, int32_t change_age = 0) {
  InterfaceDump dump;
  dump.name = name;
  dump.vrf = "blue";
  dump.nexthop = "192.0.2.1";
  dump.active = active;
  dump.change_age = change_age;
  return dump;
}

InterfaceChange change(const std::string& name) {
  return {name, true, "blue", false, "fe80::1", 1'000'000'000};
}

TEST(ChangeHook, EnvironmentTellsTheChange) {
  EXPECT_THAT(environment_of(change("wan1")),
              ElementsAre("WAN_LB_INTERFACE=wan1", "WAN_LB_FAMILY=6", "WAN_LB_VRF=blue",
                          "WAN_LB_STATE=failed", "WAN_LB_NEXTHOP=fe80::1",
                          "WAN_LB_TIME=2001-09-09T01:46:40Z"));
}

TEST(ChangeFinder, FirstDumpIsNoChange) {
  ChangeFinder finder;
  EXPECT_TRUE(finder.take({interface("wan1", true)}, false, 100).empty());
}

TEST(ChangeFinder, ChangeHasItsOwnTime) {
  ChangeFinder finder;
  finder.take({interface("wan1", true), interface("wan2", true)}, false, 100);
  const auto changes =
      finder.take({interface("wan1", false, 3), interface("wan2", true)}, false, 110);
  ASSERT_EQ(changes.size(), 1U);
  EXPECT_EQ(changes[0].interface, "wan1");
  EXPECT_FALSE(changes[0].active);
  EXPECT_EQ(changes[0].vrf, "blue");
  EXPECT_EQ(changes[0].time, 107);
}

TEST(ChangeFinder, FamiliesAndNewInterfacesAreApart) {
  ChangeFinder finder;
  finder.take({interface("wan1", true)}, false, 100);
  EXPECT_TRUE(finder.take({interface("wan1", false)}, true, 100).empty());
  EXPECT_TRUE(finder.take({interface("wan1", true), interface("wan3", false)}, false, 101).empty());
}

TEST(ChangeFinder, RestartOfTheDaemonIsNoChange) {
  ChangeFinder finder;
  InterfaceDump fresh = interface("wan1", false);
  fresh.failure_ct = fresh.success_ct = 2;
  fresh.tests.resize(1);
  finder.take({interface("wan1", true, 90)}, false, 100);
  EXPECT_TRUE(finder.take({fresh}, false, 101).empty());
  fresh.tests[0].failure_count = 1;
  EXPECT_TRUE(finder.take({fresh}, false, 102).empty());
  EXPECT_TRUE(finder.take({interface("wan1", true)}, false, 103).empty()) << "as it was";
  EXPECT_TRUE(finder.take({fresh}, false, 104).empty());
  fresh.tests[0].failure_count = 2;
  EXPECT_EQ(finder.take({fresh}, false, 105).size(), 1U) << "settled";
  EXPECT_TRUE(finder.take({fresh}, false, 106).empty());
}

TEST(ChangeFinder, LinkThatIsHeldDownHasFailed) {
  ChangeFinder finder;
  finder.take({interface("wan1", true, 90)}, false, 100);
  InterfaceDump held = interface("wan1", false, 1);
  held.failure_ct = held.success_ct = 2;
  held.tests.resize(1);
  held.tests[0].success_count = 2;
  EXPECT_EQ(finder.take({held}, false, 101).size(), 1U);
}

class ChangeHookRun : public testing::Test {
 protected:
  void TearDown() override { unlink(path_.c_str()); }

  std::string written() const {
    std::ifstream file(path_);
    std::ostringstream text;
    text << file.rdbuf();
    return text.str();
  }

  // Attends until nothing is left to do, for a while at most.
  static void finish(ChangeHook& hook) {
    for (int pauses = 0; pauses < 3000 && !hook.is_idle(); ++pauses) {
      hook.attend(monotonic_now());
      std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    EXPECT_TRUE(hook.is_idle());
  }

  const std::string path_ = testing::TempDir() + "change_hook." + std::to_string(getpid());
};

TEST_F(ChangeHookRun, OneAtATimeInOrder) {
  ChangeHook hook("echo begin $WAN_LB_INTERFACE >>" + path_ +
                      "; sleep 0.1; echo end $WAN_LB_INTERFACE >>" + path_,
                  30);
  hook.add(change("wan1"));
  hook.add(change("wan2"));
  finish(hook);
  EXPECT_EQ(written(), "begin wan1\nend wan1\nbegin wan2\nend wan2\n");
}

TEST_F(ChangeHookRun, CommandThatTakesTooLongIsKilledWithItsChildren) {
  testing::internal::CaptureStderr();
  {
    ChangeHook hook("(sleep 60; echo late >>" + path_ + ") & echo $! >>" + path_ + "; wait", 1);
    hook.add(change("wan1"));
    timespec time = monotonic_now();
    hook.attend(time);
    for (int pauses = 0; pauses < 3000 && !written().ends_with('\n'); ++pauses)
      std::this_thread::sleep_for(std::chrono::milliseconds(10));
    ++time.tv_sec;
    hook.attend(time);
    finish(hook);
  }
  EXPECT_THAT(testing::internal::GetCapturedStderr(),
              HasSubstr("the command for wan1/6 failed took longer than 1 s and was killed"));
  // The child, which is nobody's to wait for, goes at once too.
  const pid_t child = std::stoi(written());
  for (int pauses = 0; pauses < 1000; ++pauses) {
    std::ifstream status("/proc/" + std::to_string(child) + "/stat");
    std::string text((std::istreambuf_iterator<char>(status)), {});
    if (text.empty() || text.find(") Z ") != std::string::npos) return;
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  }
  ADD_FAILURE() << "the child lives on";
}

TEST_F(ChangeHookRun, FailureIsToldAndTheNextIsRun) {
  testing::internal::CaptureStderr();
  ChangeHook hook("echo $WAN_LB_INTERFACE >>" + path_ + "; exit 7", 30);
  hook.add(change("wan1"));
  hook.add(change("wan2"));
  finish(hook);
  EXPECT_THAT(testing::internal::GetCapturedStderr(), HasSubstr("ended with status 7"));
  EXPECT_EQ(written(), "wan1\nwan2\n");
}

}  // namespace
}  // namespace lbctl
