#include "routing/route_decision.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <csignal>
#include <filesystem>
#include <thread>
#include <vector>

#include "support/route_decision_fixture.h"

using testing::ElementsAre;
using testing::IsEmpty;
using testing::Pair;

namespace {

std::string block4(const std::string& route) {
  return "protocol static {\nipv4 {table master4;};\ncheck link 1;\n" + route + "\n};\n";
}
std::string block6(const std::string& route) {
  return "protocol static {\nipv6 {table master6;};\ncheck link 1;\n" + route + "\n};\n";
}

class RouteDecisionTest : public RouteDecisionFixture {};

struct FamilyRoute {
  bool ipv6;
  const char* route;
  const char* flush;
};

class RouteDecisionFamilyTest : public RouteDecisionTest,
                                public testing::WithParamInterface<FamilyRoute> {};

}  // namespace

TEST_P(RouteDecisionFamilyTest, WritesSignalsAndFlushes) {
  const auto [ipv6, route, flush] = GetParam();
  add_uplink("eth0", "192.0.2.1");
  add_uplink6("eth0", "2001:db8::1");
  run(ipv6);
  EXPECT_EQ(directory_.read(route_file_path("default", ipv6)),
            ipv6 ? block6(route) : block4(route));
  EXPECT_FALSE(directory_.exists(route_file_path("default", !ipv6)));
  EXPECT_THAT(kills_, ElementsAre(Pair(4711, SIGHUP)));
  EXPECT_THAT(commands_, ElementsAre(Pair(pid_command() + " 2>/dev/null", "r"), Pair(flush, "w")));
  EXPECT_EQ(call_count("pclose"), 2);
  EXPECT_THAT(log_records(), IsEmpty());
  EXPECT_EQ(written("default", ipv6), route + std::string("\n"));
  EXPECT_EQ(written("default", !ipv6), "");
}

INSTANTIATE_TEST_SUITE_P(Families, RouteDecisionFamilyTest,
                         testing::Values(FamilyRoute{false,
                                                     "route 0.0.0.0/0 via 192.0.2.1 weight 1;",
                                                     "ip route flush cache 2>/dev/null"},
                                         FamilyRoute{true, "route ::/0 via 2001:db8::1 weight 1;",
                                                     "ip -6 route flush cache 2>/dev/null"}),
                         [](const auto& test) { return test.param.ipv6 ? "Ipv6" : "Ipv4"; });

TEST_F(RouteDecisionTest, OtherVrfHasItsOwnPlaces) {
  add_uplink("eth0", "192.0.2.1");
  rule_.vrf = "red";
  config_.interfaces.at("eth0").vrf = "red";
  use_pid_file("815\n", "red");
  run(false, "red");
  EXPECT_EQ(directory_.read(route_file_path("red", false)),
            block4("route 0.0.0.0/0 via 192.0.2.1 weight 1;"));
  EXPECT_FALSE(directory_.exists(route_file_));
  EXPECT_THAT(kills_, ElementsAre(Pair(815, SIGHUP)));
  EXPECT_THAT(commands_, ElementsAre(Pair(pid_command("red") + " 2>/dev/null", "r"),
                                     Pair("ip route flush cache 2>/dev/null", "w")));
  EXPECT_EQ(written("red", false), "route 0.0.0.0/0 via 192.0.2.1 weight 1;\n");
  EXPECT_EQ(written("default", false), "");
}

// The routing daemon may read at any moment.
TEST_F(RouteDecisionTest, FileIsReplacedAsAWhole) {
  add_uplink("eth0", "192.0.2.1");
  directory_.write(route_file_, "old");
  struct stat before {};
  ASSERT_EQ(stat(route_file_.c_str(), &before), 0);
  run();
  struct stat after {};
  ASSERT_EQ(stat(route_file_.c_str(), &after), 0);
  EXPECT_NE(before.st_ino, after.st_ino);
  EXPECT_EQ(directory_.read(route_file_), block4("route 0.0.0.0/0 via 192.0.2.1 weight 1;"));
}

// --- only changes are written ---

TEST_F(RouteDecisionTest, NothingHappensWhileThereAreNoRoutes) {
  directory_.write(route_file_, "left from an earlier run");
  add_uplink("eth0", "192.0.2.1");
  set_active(config_.interfaces.at("eth0"), false);
  run();
  EXPECT_EQ(directory_.read(route_file_), "left from an earlier run");
  EXPECT_THAT(commands_, IsEmpty());
  EXPECT_THAT(kills_, IsEmpty());
  EXPECT_THAT(log_records(), IsEmpty());
}

TEST_F(RouteDecisionTest, LostRoutesEmptyTheFileAndSignal) {
  add_uplink("eth0", "192.0.2.1");
  run();
  set_active(config_.interfaces.at("eth0"), false);
  run();
  EXPECT_TRUE(directory_.exists(route_file_));
  EXPECT_EQ(directory_.read(route_file_), "");
  EXPECT_EQ(kills_.size(), 2u);
  run();
  EXPECT_EQ(kills_.size(), 2u);
}

TEST_F(RouteDecisionTest, SameTextIsWrittenAndSignalledOnce) {
  add_uplink("eth0", "192.0.2.1");
  run();
  directory_.write(route_file_, "untouched");
  run();
  EXPECT_EQ(directory_.read(route_file_), "untouched");
  EXPECT_EQ(kills_.size(), 1u);
  EXPECT_EQ(commands_.size(), 2u);
}

TEST_F(RouteDecisionTest, ShorterTextLeavesNoRestOfTheLongerOne) {
  add_uplink("eth0", "192.0.2.1");
  add_uplink("eth1", "198.51.100.1", 2);
  run();
  set_active(config_.interfaces.at("eth0"), false);
  run();
  EXPECT_EQ(directory_.read(route_file_), block4("route 0.0.0.0/0 via 198.51.100.1 weight 2;"));
  EXPECT_EQ(kills_.size(), 2u);
}

TEST_F(RouteDecisionTest, FamiliesAndVrfsKeepTheirOwnNotes) {
  add_uplink("eth0", "192.0.2.1");
  add_uplink6("eth0", "2001:db8::1");
  run(false);
  run(true);
  run(false);
  run(true);
  EXPECT_EQ(kills_.size(), 2u);
  run(false, "red");  // nothing of its own: the notes of "default" are not its notes
  EXPECT_EQ(kills_.size(), 2u);
}

TEST_F(RouteDecisionTest, FileThatCannotBeOpenedIsNotReportedNorTriedAgain) {
  std::filesystem::remove_all(route_directory_);
  add_uplink("eth0", "192.0.2.1");
  run();
  EXPECT_THAT(kills_, ElementsAre(Pair(4711, SIGHUP)));  // all the same
  EXPECT_THAT(log_records(), IsEmpty());
  EXPECT_EQ(written("default", false), "route 0.0.0.0/0 via 192.0.2.1 weight 1;\n");
  make_route_directory();
  run();
  EXPECT_FALSE(directory_.exists(route_file_));
  EXPECT_EQ(kills_.size(), 1u);
}

TEST_F(RouteDecisionTest, NoLockIsHeldOverFileCommandAndSignal) {
  add_uplink("eth0", "192.0.2.1");
  int free_count = 0;
  const auto check = [&] {
    if (!config_.written_mutex.try_lock()) return;
    config_.written_mutex.unlock();
    Mutex& interface = config_.interfaces.at("eth0").mutex;
    if (!interface.try_lock()) return;
    interface.unlock();
    ++free_count;
  };
  CallHook open_hook(wrapped::open, [&](const char* path, int flags, mode_t mode) {
    check();
    return wrapped::open.real(path, flags, mode);
  });
  CallHook popen_hook(wrapped::popen, [&](const char*, const char* mode) {
    check();
    return wrapped::popen.real(mode[0] == 'r' ? "echo 4711" : "true", mode);
  });
  CallHook kill_hook(wrapped::kill, [&](pid_t, int) {
    check();
    return 0;
  });
  run();
  EXPECT_EQ(free_count, 4);  // the file, the pid, the signal, the flush
}

// --- several workers ---

TEST_F(RouteDecisionTest, WorkersOfAllKindsRunAtOnce) {
  rule_.failover = 1;
  add_uplink("eth0", "192.0.2.1");
  add_uplink6("eth0", "2001:db8::1");
  const Fault no_commands("popen", ENOMEM);
  std::vector<std::thread> workers;
  for (const bool ipv6 : {false, true}) {
    for (const char* vrf : {"default", "red"}) {
      workers.emplace_back([this, ipv6, vrf] {
        for (int i = 0; i < 100; ++i) {
          set_active(config_.interfaces_of(ipv6).at("eth0"), i % 2 == 1);
          run(ipv6, vrf);
        }
      });
    }
  }
  for (std::thread& worker : workers) worker.join();
  run(false);
  run(true);
  EXPECT_EQ(directory_.read(route_file_), block4("route 0.0.0.0/0 via 192.0.2.1 weight 1;"));
  EXPECT_EQ(directory_.read(route_file6_), block6("route ::/0 via 2001:db8::1 weight 1;"));
}
