// The recorder: the trace of a run's dumps, simulated, changes the same states at the same times.
#include "lbctl/recorder.h"

#include <gtest/gtest.h>

#include <cstring>
#include <memory>
#include <random>
#include <span>
#include <sstream>
#include <string>
#include <utility>
#include <vector>

#include "lbctl/configuration.h"
#include "lbctl/simulation.h"
#include "lbctl/trace_test.h"
#include "output/dump_records.h"
#include "output/interface_snapshot.h"
#include "routing/interface_health.h"

using namespace lbctl;

namespace {

constexpr int64_t kSecond = kNanosecondsPerSecond;

InterfaceDump dump_of(int32_t successes, int32_t failures, bool active) {
  InterfaceDump interface;
  interface.name = "wan1";
  interface.nexthop = "10.0.0.1";
  interface.success_ct = 3;
  interface.failure_ct = 2;
  interface.active = active;
  TestDump test;
  test.target = "198.51.100.7";
  test.success_count = successes;
  test.failure_count = failures;
  test.result = successes > 0 ? kResultSuccess : failures > 0 ? kResultFailure : kResultNone;
  interface.tests.push_back(test);
  return interface;
}

// Without the comments.
std::string lines_of(const std::string& text) {
  std::istringstream stream(text);
  std::string result;
  for (std::string line; std::getline(stream, line);) {
    if (!line.starts_with('#')) result += line + "\n";
  }
  return result;
}

TEST(Recorder, TheFirstDumpIsToldAsWhatLeadsToIt) {
  Recorder recorder;
  EXPECT_EQ(lines_of(recorder.take({dump_of(3, 0, true)}, false, 0)),
            "0.000 nexthop wan1 10.0.0.1\n"
            "0.000 probe wan1 198.51.100.7 ok\n"
            "0.000 probe wan1 198.51.100.7 ok\n"
            "0.000 probe wan1 198.51.100.7 ok\n");
  EXPECT_EQ(recorder.take({dump_of(3, 0, true)}, false, kSecond), "");
}

TEST(Recorder, AStreakThatHasJustBegunDoesNotHideTheState) {
  Recorder recorder;
  EXPECT_EQ(lines_of(recorder.take({dump_of(0, 1, true)}, false, 0)),
            "0.000 nexthop wan1 10.0.0.1\n"
            "0.000 probe wan1 198.51.100.7 ok\n"
            "0.000 probe wan1 198.51.100.7 ok\n"
            "0.000 probe wan1 198.51.100.7 ok\n"
            "0.000 probe wan1 198.51.100.7 fail\n");
}

TEST(Recorder, CountsThatMoveAreOutcomes) {
  Recorder recorder;
  recorder.take({dump_of(3, 0, true)}, false, 0);
  EXPECT_EQ(lines_of(recorder.take({dump_of(0, 1, true)}, false, 2'345'000'000)),
            "2.345 probe wan1 198.51.100.7 fail\n");
  EXPECT_EQ(lines_of(recorder.take({dump_of(0, 2, false)}, false, 4 * kSecond)),
            "4.000 probe wan1 198.51.100.7 fail\n");
  EXPECT_EQ(lines_of(recorder.take({dump_of(2, 0, false)}, false, 7 * kSecond)),
            "7.000 probe wan1 198.51.100.7 ok\n7.000 probe wan1 198.51.100.7 ok\n");
  // Fewer in a row than before: there was another outcome between.
  EXPECT_EQ(lines_of(recorder.take({dump_of(1, 0, false)}, false, 9 * kSecond)),
            "9.000 probe wan1 198.51.100.7 fail\n9.000 probe wan1 198.51.100.7 ok\n");
}

// A dump or more was missed: the counts alone would not lead to the state.
TEST(Recorder, AChangeThatTheCountsDoNotExplainIsTold) {
  Recorder recorder;
  recorder.take({dump_of(3, 0, true)}, false, 0);
  EXPECT_EQ(lines_of(recorder.take({dump_of(1, 0, false)}, false, kSecond)),
            "1.000 probe wan1 198.51.100.7 fail\n"
            "1.000 probe wan1 198.51.100.7 fail\n"
            "1.000 probe wan1 198.51.100.7 ok\n");
}

TEST(Recorder, ARestartOfTheDaemonFailsWhatWasThere) {
  Recorder recorder;
  recorder.take({dump_of(3, 0, true)}, false, 0);
  EXPECT_EQ(lines_of(recorder.take({dump_of(0, 0, false)}, false, kSecond)),
            "1.000 probe wan1 198.51.100.7 fail\n1.000 probe wan1 198.51.100.7 fail\n");
  EXPECT_EQ(lines_of(recorder.take({dump_of(1, 0, false)}, false, 2 * kSecond)),
            "2.000 probe wan1 198.51.100.7 ok\n");
}

TEST(Recorder, BurstsHaveTheirFigures) {
  Recorder recorder;
  InterfaceDump interface = dump_of(2, 0, false);
  interface.tests[0].measurement = TestDump::Measurement{5, 0, 20, 50, 1, 200};
  recorder.take({interface}, false, 0);
  interface.tests[0].success_count = 3;
  interface.tests[0].measurement->measured_rtt = 33;
  EXPECT_EQ(lines_of(recorder.take({interface}, false, kSecond)),
            "1.000 burst wan1 198.51.100.7 0 33 5\n");
  interface.tests[0].measurement->measured_jitter = 7;  // at the threshold
  EXPECT_EQ(lines_of(recorder.take({interface}, false, 2 * kSecond)),
            "2.000 burst wan1 198.51.100.7 0 33 7\n");
  // A trace has no negative times.
  interface.tests[0].measurement->measured_jitter = -1;
  EXPECT_EQ(lines_of(recorder.take({interface}, false, 2 * kSecond)),
            "2.000 probe wan1 198.51.100.7 ok\n");
  // A dead link measures nothing: the figures of the last burst stay.
  interface.tests[0].success_count = 0;
  interface.tests[0].failure_count = 1;
  interface.tests[0].result = kResultFailure;
  EXPECT_EQ(lines_of(recorder.take({interface}, false, 3 * kSecond)),
            "3.000 probe wan1 198.51.100.7 fail\n");
}

TEST(Recorder, TestsOfOneTargetAreToldOnce) {
  Recorder recorder;
  InterfaceDump interface = dump_of(1, 0, false);
  recorder.take({interface}, false, 0);
  interface.tests[0].success_count = 2;
  interface.tests.push_back(interface.tests[0]);
  EXPECT_EQ(lines_of(recorder.take({interface}, false, kSecond)),
            "1.000 probe wan1 198.51.100.7 ok\n");
}

TEST(Recorder, AnEarlierNextHopThatIsStillTheTargetIsToldFirst) {
  InterfaceDump interface = dump_of(1, 0, false);
  interface.nexthop = "";
  EXPECT_TRUE(Recorder()
                  .take({interface}, false, 0)
                  .starts_with("0.000 nexthop wan1 198.51.100.7\n0.000 nexthop wan1 -\n"));
  interface.nexthop = "10.0.0.1";
  interface.nexthop_is_dhcp = true;
  EXPECT_TRUE(Recorder()
                  .take({interface}, false, 0)
                  .starts_with("0.000 nexthop wan1 198.51.100.7\n0.000 nexthop wan1 10.0.0.1\n"));
  interface.tests[0].target = "name.example";
  EXPECT_TRUE(Recorder().take({interface}, false, 0).starts_with("0.000 nexthop wan1 10.0.0.1\n"));
}

TEST(Recorder, WhatHasNoPlaceInALineIsAComment) {
  Recorder recorder;
  InterfaceDump interface = dump_of(1, 0, false);
  interface.name = "my \"own\" uplink";
  EXPECT_EQ(lines_of(recorder.take({interface}, false, 0)), "");
  interface.name = "my uplink";
  EXPECT_NE(recorder.take({interface}, false, 0).find("nexthop \"my uplink\" 10.0.0.1"),
            std::string::npos);
}

// A daemon that gets its outcomes from the test, and leaves the dumps of its like.
class DumpingDaemon {
 public:
  explicit DumpingDaemon(const std::string& text)
      : configuration_(load_configuration_text(text, "d")) {
    keep_log_messages(false);
    for (auto& [name, interface] : configuration_->model.interfaces) {
      for (auto& [index, test] : interface.tests) {
        auto made = std::make_shared<TraceTest>(configured(*test), false);
        tests_.push_back({&interface, made});
        test = made;
      }
    }
  }
  ~DumpingDaemon() { keep_log_messages(true); }

  void run_cycle(int64_t second, std::minstd_rand& random) {
    time_.set(second);
    for (auto& [interface, test] : tests_) test->send(*interface, {});
    for (auto& [interface, test] : tests_) {
      const bool outcome = random() % 3 != 0;
      if (!test->target().empty() && random() % 4 != 0)
        test->take(*interface, outcome, test->target());
    }
    LBWorkerContext worker;
    worker.vrf = kDefaultNamespace;
    for (auto& [name, interface] : configuration_->model.interfaces)
      evaluate_state(interface, worker);
  }

  void end_cycle(std::minstd_rand& random) {
    for (auto& [name, interface] : configuration_->model.interfaces) {
      if (!interface.discovers_nexthop() || random() % 8 != 0) continue;
      const MutexLock lock(interface.mutex);
      const auto choice = random() % 3;
      interface.state.nexthop_address = choice == 0 ? "" : "10.9.0." + std::to_string(choice);
    }
  }

  std::vector<InterfaceDump> dump() const {
    std::vector<DumpOutbound> records;
    for (const auto& [name, interface] : configuration_->model.interfaces)
      EXPECT_TRUE(fill_outbound(take_snapshot(interface), 0, records.emplace_back()));
    const auto* bytes = reinterpret_cast<const uint8_t*>(records.data());
    auto parsed = parse_outbounds(std::span(bytes, records.size() * sizeof(DumpOutbound)), false);
    EXPECT_EQ(parsed.error, "");
    return parsed.values;
  }

 private:
  VirtualTime time_{0};
  std::unique_ptr<Configuration> configuration_;
  std::vector<std::pair<LBInterface*, std::shared_ptr<TraceTest>>> tests_;
};

struct Change {
  int64_t time;
  std::string interface;
  bool active;
  bool operator==(const Change&) const = default;
};

void PrintTo(const Change& change, std::ostream* out) {
  *out << change.time << " " << change.interface << (change.active ? " active" : " failed");
}

class Changes : public SimulationObserver {
 public:
  void interface_changed(int64_t time, const LBInterface& interface, bool active) override {
    all.push_back({time, interface.name, active});
  }
  void routes_changed(int64_t /*time*/, const std::string& /*vrf*/, bool /*ipv6*/,
                      const std::string& /*body*/) override {}
  std::vector<Change> all;
};

std::string configuration_text(bool several_targets, bool hold_down) {
  const std::string second = "test 2 {\ntype ping\ntarget 198.51.100.9\n}\n";
  const std::string hold = hold_down ? "hold-down 6\n" : "";
  return "health {\n"
         "interface wan1 {\nnexthop 10.0.0.1\nfailure-ct 2\n" +
         hold + "test 1 {\ntype ping\ntarget 198.51.100.7\n}\n" + (several_targets ? second : "") +
         "}\n" +
         "interface wan2 {\nnexthop kernel\nsuccess-ct 2\ntest 1 {\ntype ping\n}\n}\n"
         "interface wan3 {\nnexthop 10.0.2.1\ncheck_all\nfailure-ct 3\n"
         "test 1 {\ntype ping\ntarget 198.51.100.7\n}\n" +
         (several_targets ? second : "") + "}\n}\n" +
         "rule 1_ipv4 {\ninterface wan1 {\nweight 1\n}\ntarget {\naddress 0.0.0.0/0\n}\n}\n";
}

// Dumps of the seconds from `first` on, recorded; what they show from then on is what the trace
// does.
void check_run(unsigned int seed, const std::string& text, int64_t first) {
  std::minstd_rand random(seed);
  std::vector<Change> expected;
  std::string trace;
  {
    DumpingDaemon daemon(text);
    Recorder recorder;
    std::vector<InterfaceDump> before;
    for (int64_t second = 0; second < first + 120; ++second) {
      daemon.run_cycle(second, random);
      if (second >= first) {
        const std::vector<InterfaceDump> dump = daemon.dump();
        trace += recorder.take(dump, false, second * kSecond);
        for (size_t at = 0; at < dump.size(); ++at) {
          if (before.empty() ? dump[at].active : dump[at].active != before[at].active)
            expected.push_back({second, dump[at].name, dump[at].active});
        }
        before = dump;
      }
      daemon.end_cycle(random);
    }
  }
  const auto configuration = load_configuration_text(text, "s");
  Changes changes;
  Simulation simulation(configuration->model, changes);
  std::istringstream lines(trace);
  for (std::string line; std::getline(lines, line);) {
    TraceLine parsed;
    ASSERT_EQ(parse_trace_line(line, parsed), nullptr) << line;
    simulation.take(parsed);
  }
  simulation.finish(std::nullopt);
  // A change by itself, at the end of a hold-down, may come after the last line.
  std::erase_if(expected, [&](const Change& change) { return change.time > simulation.end(); });
  ASSERT_GT(expected.size(), 3U) << "the run moves nothing";
  ASSERT_EQ(changes.all, expected) << "seed " << seed << "\n" << trace;
}

TEST(Recorder, ARunFromItsStartComesBackFromItsTrace) {
  for (unsigned int seed = 1; seed <= 100; ++seed)
    check_run(seed, configuration_text(true, true), 0);
}

// With several targets the dumps do not tell what an uncounted one had settled to.
TEST(Recorder, ARunFromItsMiddleComesBackFromItsTrace) {
  for (unsigned int seed = 1; seed <= 100; ++seed)
    check_run(seed, configuration_text(false, false), 25);
}

}  // namespace
