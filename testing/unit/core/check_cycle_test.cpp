#include "core/check_cycle.h"

#include <gmock/gmock.h>

#include <filesystem>

#include "platform/clock.h"
#include "support/core_fixture.h"
#include "support/recorded_device.h"
#include "support/recorded_log.h"
#include "support/virtual_clock/virtual_clock.h"
#include "support/wrapped_calls.h"

using namespace std::chrono_literals;
using testing::Each;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::SizeIs;
using testing::StartsWith;

namespace {

constexpr int32_t kStart = 1'700'000'000;  // the virtual wall clock

// wan1 has a literal next hop, wan2 a lease, tun1 a peer; red1 is of another VRF. Of IPv6 there are
// wan6 and red6.
class CheckCycleTest : public CoreFixture {
 protected:
  CheckCycleTest() {
    load(
        "health {\n"
        " interface wan1 {\n success-ct 1\n nexthop 192.0.2.1\n }\n"
        " interface wan2 {\n nexthop dhcp\n }\n"
        " interface tun1 {\n nexthop tunnel\n }\n"
        " interface red1 {\n namespace red\n nexthop 192.0.2.7\n }\n"
        " interface6 wan6 {\n nexthop 2001:db8::1\n }\n"
        " interface6 red6 {\n namespace red\n }\n}\n"
        "rule 1_ipv4 {\n interface wan1 {\n weight 1\n }\n target {\n address 0.0.0.0/0\n }\n}\n");
    for (const bool ipv6 : {false, true}) {
      for (auto& [name, interface] : daemon_.config().interfaces_of(ipv6)) {
        interface.tests.clear();
        add_test(interface, 1, name + " 1");
      }
    }
    add_test(interface("wan1"), 10, "wan1 10");
    add_test(interface("wan1"), 2, "wan1 2");
    worker_.daemon = &daemon_;
    worker_.vrf = kDefaultNamespace;
  }

  static bool changed(const LBInterface& interface) { return interface.snapshot().state_changed; }

  std::vector<std::string> events_of(const std::string& start) const {
    std::vector<std::string> found;
    for (const std::string& event : events_.all()) {
      if (event.starts_with(start)) found.push_back(event);
    }
    return found;
  }

  LBWorkerContext worker_;
  CheckCycle cycle_{worker_};

 private:
  // The routing daemon's file, the leases and the machine's addresses: noted, and none is there.
  CallHook<int(const char*, int, mode_t)> open_hook_{wrapped::open,
                                                     [this](const char* path, int, mode_t) {
                                                       events_.note(std::string("open ") + path);
                                                       errno = ENOENT;
                                                       return -1;
                                                     }};
  CallHook<int(ifaddrs**)> getifaddrs_hook_{wrapped::getifaddrs, [this](ifaddrs** result) {
                                              events_.note("getifaddrs");
                                              *result = nullptr;
                                              return 0;
                                            }};
  const Fault no_commands_{"popen", ENOMEM};
};

}  // namespace

// --- a worker's start ---

TEST_F(CheckCycleTest, StartAnnouncesTheInterfacesOfTheWorker) {
  interface("wan1").origin = "eth1";
  recorded_device::name_interface("eth1", "GigabitEthernet1");
  recorded_device::name_interface("wan2", "");
  cycle_.start();
  EXPECT_THAT(
      log_records(),
      ElementsAre(LoggedInstance("IP interface tun1 changed state to inactive"),
                  LoggedInstance("IP interface GigabitEthernet1 changed state to inactive"),
                  LoggedInstance("IP interface unknown interface changed state to inactive")));
  for (const char* name : {"wan1", "wan2", "tun1"}) {
    EXPECT_EQ(interface(name).snapshot().last_state_change, kStart) << name;
  }
  EXPECT_EQ(interface("red1").snapshot().last_state_change, 0);
  EXPECT_EQ(interface6("wan6").snapshot().last_state_change, 0);
  EXPECT_FALSE(interface("wan1").snapshot().active);
}

TEST_F(CheckCycleTest, StartOfAnIpv6WorkerSaysSo) {
  worker_.ipv6 = true;
  worker_.vrf = "red";
  cycle_.start();
  EXPECT_THAT(log_records(),
              ElementsAre(LoggedInstance("IPv6 interface red6 changed state to inactive")));
  EXPECT_EQ(interface6("red6").snapshot().last_state_change, kStart);
  EXPECT_EQ(interface6("wan6").snapshot().last_state_change, 0);
  EXPECT_EQ(interface("red1").snapshot().last_state_change, 0);
}

TEST_F(CheckCycleTest, AnnouncementIsBehindItsFlag) {
  set_log_flag(0, false);
  cycle_.start();
  EXPECT_THAT(log_records(), IsEmpty());
  EXPECT_EQ(interface("wan1").snapshot().last_state_change, kStart);
}

TEST_F(CheckCycleTest, StartPreparesTheTestsOfBothFamiliesOfItsVrf) {
  cycle_.start();
  EXPECT_THAT(events_.all(), ElementsAre("init tun1 1", "init wan1 1", "init wan1 2",
                                         "init wan1 10", "init wan2 1", "init wan6 1"));
}

TEST_F(CheckCycleTest, StartOfTheOtherFamilysWorkerPreparesTheSameTests) {
  worker_.ipv6 = true;
  worker_.vrf = "red";
  cycle_.start();
  EXPECT_THAT(events_.all(), ElementsAre("init red1 1", "init red6 1"));
}

// --- a cycle ---

TEST_F(CheckCycleTest, AllProbesAreOutBeforeAnyIsJudged) {
  cycle_.run_once();
  EXPECT_THAT(events_of("send "), ElementsAre("send tun1 1", "send wan1 1", "send wan1 2",
                                              "send wan1 10", "send wan2 1"));
  EXPECT_THAT(events_of("recv "), ElementsAre("recv tun1 1", "recv wan1 1", "recv wan1 2",
                                              "recv wan1 10", "recv wan2 1"));
  auto first = events_.all();
  first.resize(5);
  EXPECT_THAT(first, Each(StartsWith("send ")));
}

TEST_F(CheckCycleTest, WorkerOfAnotherFamilyAndVrfRunsItsOwnTestsOnly) {
  worker_.ipv6 = true;
  worker_.vrf = "red";
  cycle_.run_once();
  EXPECT_THAT(events_of("send "), ElementsAre("send red6 1"));
  EXPECT_THAT(events_of("recv "), ElementsAre("recv red6 1"));
}

TEST_F(CheckCycleTest, InterfaceOfAVrfThatIsNotServedIsNeverTested) {
  interface("wan1").vrf = "blue";
  for (const char* vrf : {"default", "red"}) {
    worker_.vrf = vrf;
    cycle_.start();
    cycle_.run_once();
  }
  for (const std::string& event : events_.all()) {
    EXPECT_THAT(event, testing::Not(testing::HasSubstr("wan1")));
  }
  EXPECT_THAT(log_texts(), Each(testing::Not(testing::HasSubstr("wan1"))));
  EXPECT_EQ(interface("wan1").snapshot().last_failure, 0);
}

TEST_F(CheckCycleTest, TestsAreWalkedFromTheFirstInEveryCycle) {
  cycle_.run_once();
  cycle_.run_once();
  EXPECT_THAT(events_of("send wan1"), ElementsAre("send wan1 1", "send wan1 2", "send wan1 10",
                                                  "send wan1 1", "send wan1 2", "send wan1 10"));
}

TEST_F(CheckCycleTest, TestsKnowTheirWorker) {
  const LBWorkerContext* seen = nullptr;
  add_test(interface("wan2"), 1, "wan2 1",
           [&seen](const LBWorkerContext& worker) { seen = &worker; });
  cycle_.run_once();
  EXPECT_EQ(seen, &worker_);
}

// What the probes gave is evaluated, decided on and reported in the same cycle; then comes the
// second of sleep, then the watchdog, and the end of the cycle.
TEST_F(CheckCycleTest, StepsFollowEachOther) {
  CallHook fopen_hook(wrapped::fopen, [&](const char* path, const char* mode) {
    events_.note("fopen " + std::string(path).substr(directory_.path().size()));
    return wrapped::fopen.real(path, mode);
  });
  virtual_clock::on_sleep([&](std::chrono::nanoseconds) {
    events_.note("sleep");
    EXPECT_THAT(recorded_device::calls(), IsEmpty());
    EXPECT_TRUE(changed(interface("wan1")));
  });
  virtual_clock::set_wall({.tv_sec = kStart + 9, .tv_nsec = 0});
  cycle_.run_once();
  auto events = events_.all();
  events.erase(events.begin(), events.begin() + 10);  // the tests
  const std::string route_file = route_file_path("default", false);
  const std::string beside =
      std::filesystem::path(route_file).replace_filename(".default.ipv4.new");
  EXPECT_THAT(events, ElementsAre("open " + beside, "open " + route_file,
                                  "fopen /out/wlb_dump/wlb_ipv4_outbounds.bin",
                                  "fopen /out/wlb_dump/wlb_rules.bin",
                                  "fopen /out/wlb_dump/wlb_routes.bin", "fopen /out/wlb_ipv4.out",
                                  "sleep", "open " + lease_file_path("wan2", false), "getifaddrs"));
  EXPECT_EQ(interface("wan1").snapshot().last_success, kStart + 9);
  EXPECT_THAT(directory_.read("out/wlb_ipv4.out"),
              testing::HasSubstr("Interface:  wan1\n  Status:  active\n"));
  EXPECT_THAT(virtual_clock::sleeps(), ElementsAre(1s));
  EXPECT_THAT(recorded_device::calls(), ElementsAre("send_and_shift_timeout 1"));
}

TEST_F(CheckCycleTest, WatchdogGetsTheWordsOfTheProcess) {
  daemon_.register_with_watchdog();
  cycle_.run_once();
  EXPECT_EQ(recorded_device::words().timeout, recorded_device::words().learned);
  EXPECT_EQ(recorded_device::words().last, daemon_.watchdog_last());
  EXPECT_NE(recorded_device::words().last, recorded_device::words().timeout);
}

TEST_F(CheckCycleTest, WatchdogIsFedBeforeTheNextHopsAreLookedUp) {
  size_t fed = 0;
  bool cleared = false;
  CallHook open_hook(wrapped::open, [&](const char* path, int, mode_t) {
    if (path == lease_file_path("wan2", false)) {
      fed = recorded_device::calls().size();
      cleared = !changed(interface("wan1"));
    }
    errno = ENOENT;
    return -1;
  });
  cycle_.run_once();
  EXPECT_EQ(fed, 1u);
  EXPECT_TRUE(cleared);
}

TEST_F(CheckCycleTest, EndOfTheCycleClearsTheChangesOfItsFamilyInAllVrfs) {
  cycle_.run_once();
  EXPECT_FALSE(changed(interface("wan1")));
  EXPECT_FALSE(changed(interface("red1")));
  EXPECT_TRUE(changed(interface6("wan6")));
  worker_.ipv6 = true;
  cycle_.run_once();
  EXPECT_FALSE(changed(interface6("wan6")));
  EXPECT_FALSE(changed(interface6("red6")));
}

TEST_F(CheckCycleTest, WithoutTestsItStillCyclesAndFeedsTheWatchdog) {
  for (auto& [name, interface] : daemon_.config().interfaces) interface.tests.clear();
  cycle_.start();
  for (int i = 0; i < 3; ++i) cycle_.run_once();
  EXPECT_THAT(virtual_clock::sleeps(), ElementsAre(1s, 1s, 1s));
  EXPECT_THAT(recorded_device::calls(), SizeIs(3));
  EXPECT_THAT(recorded_device::calls(), Each("send_and_shift_timeout 1"));
}

TEST_F(CheckCycleTest, SlowTestDelaysTheWholeCycle) {
  add_test(interface("wan1"), 1, "wan1 1", [](const LBWorkerContext&) {
    EXPECT_THAT(recorded_device::calls(), IsEmpty());
    virtual_clock::advance(20s);
  });
  cycle_.run_once();
  EXPECT_EQ(interface("wan1").snapshot().last_success, kStart + 20);
  EXPECT_THAT(virtual_clock::sleeps(), ElementsAre(1s));  // nothing is taken off it
  EXPECT_EQ(wall_now().tv_sec, kStart + 21);
}
