// The simulation: single events, and that leaving out what nothing comes of changes nothing.
#include "lbctl/simulation.h"

#include <gtest/gtest.h>

#include <map>
#include <memory>
#include <random>
#include <string>
#include <vector>

#include "lbctl/command.h"
#include "lbctl/configuration.h"
#include "lbctl/simulation_output.h"
#include "routing/interface_health.h"
#include "routing/route_syntax.h"

using namespace lbctl;

namespace {

std::string block(const std::string& head, const std::string& body) {
  return head + " {\n" + body + "\n}\n";
}

std::string interface_block(const std::string& name, const std::string& keywords,
                            const std::string& tests) {
  return block("interface " + name, keywords + "\n" + tests);
}

std::string test_block(int number, const std::string& keywords) {
  return block("test " + std::to_string(number), keywords);
}

std::string ipv4_rule(const std::string& name, const std::string& members,
                      const std::string& more = "") {
  return block("rule " + name, more + members + block("target", "address 0.0.0.0/0"));
}

std::string member(const std::string& name, int weight) {
  return block("interface " + name, "weight " + std::to_string(weight));
}

// Feeds lines and gives all that was printed.
class SimulatedRun {
 public:
  explicit SimulatedRun(const std::string& text)
      : configuration_(load_configuration_text(text, "test.conf")),
        output_([this](std::string_view printed) { text_ += printed; }, false),
        simulation_(configuration_->model, output_) {}

  void feed(std::string_view text) {
    TraceLine line;
    const char* const fault = parse_trace_line(text, line);
    ASSERT_EQ(fault, nullptr) << fault;
    simulation_.take(line);
  }

  // The exit status and the words of the refusal.
  std::pair<int, std::string> refusal(std::string_view text) {
    try {
      feed(text);
    } catch (const Failure& failure) {
      return {failure.exit_status(), failure.what()};
    }
    return {kExitOk, ""};
  }

  std::string finish(std::optional<int64_t> until = std::nullopt) {
    simulation_.finish(until);
    return text_;
  }

 private:
  std::string text_;
  std::unique_ptr<Configuration> configuration_;
  SimulationText output_;
  Simulation simulation_;
};

const std::string kTwoUplinks =
    block("health",
          interface_block("wan1", "nexthop 10.0.0.1\nfailure-ct 2\nsuccess-ct 1",
                          test_block(1, "type ping\ntarget 198.51.100.7")) +
              interface_block("wan2", "nexthop kernel\nsuccess-ct 1", test_block(1, "type ping"))) +
    ipv4_rule("1_ipv4", member("wan1", 1) + member("wan2", 2));

TEST(Simulation, TellsEveryChangeWithItsRoutes) {
  SimulatedRun run(kTwoUplinks);
  for (const char* line : {"0 probe wan1 198.51.100.7 ok", "1.2 nexthop wan2 10.0.1.1",
                           "1.5 probe wan2 10.0.1.1 ok", "9.1 probe wan1 198.51.100.7 fail",
                           "11.0 probe wan1 198.51.100.7 fail", "13 nexthop wan2 -"})
    run.feed(line);
  EXPECT_EQ(run.finish(),
            "0.000 interface wan1 ACTIVE\n"
            "0.000 routes ipv4 default\n"
            "    route 0.0.0.0/0 via 10.0.0.1 weight 1;\n"
            "2.000 interface wan2 ACTIVE\n"
            "2.000 routes ipv4 default\n"
            "    route 0.0.0.0/0 via 10.0.0.1 weight 1 via 10.0.1.1 weight 2;\n"
            "11.000 interface wan1 FAILED\n"
            "11.000 routes ipv4 default\n"
            "    route 0.0.0.0/0 via 10.0.1.1 weight 2;\n"
            "13.000 routes ipv4 default\n");
}

TEST(Simulation, WhatComesWithinACycleCountsAtItsEnd) {
  SimulatedRun run(kTwoUplinks);
  run.feed("0 probe wan1 198.51.100.7 ok");
  // Both failures and the way back lie in the cycle of second 5: nobody looks between.
  run.feed("4.1 probe wan1 198.51.100.7 fail");
  run.feed("4.2 probe wan1 198.51.100.7 fail");
  run.feed("5.0 probe wan1 198.51.100.7 ok");
  EXPECT_EQ(run.finish().find("FAILED"), std::string::npos);
}

TEST(Simulation, ATestOfTheNextHopGoesOverToANewOne) {
  SimulatedRun run(kTwoUplinks);
  run.feed("0 nexthop wan2 10.0.1.1");
  run.feed("0 probe wan2 10.0.1.1 ok");
  run.feed("5 nexthop wan2 10.0.1.254");
  EXPECT_EQ(run.refusal("5 probe wan2 10.0.1.1 ok").first, kExitUsage);
  run.feed("6 probe wan2 10.0.1.254 fail");
  const std::string text = run.finish();
  EXPECT_NE(text.find("5.000 routes ipv4 default\n    route 0.0.0.0/0 via 10.0.1.254 weight 2;\n"),
            std::string::npos)
      << text;
  EXPECT_NE(text.find("6.000 interface wan2 FAILED\n"), std::string::npos) << text;
}

TEST(Simulation, HoldDownEndsByItself) {
  SimulatedRun run(
      block("health", interface_block("wan1", "nexthop 10.0.0.1\nhold-down 5\nsuccess-ct 1",
                                      test_block(1, "type ping\ntarget 198.51.100.7"))) +
      ipv4_rule("1_ipv4", member("wan1", 1)));
  run.feed("0 probe wan1 198.51.100.7 ok");
  run.feed("10 probe wan1 198.51.100.7 fail");
  run.feed("100 probe wan1 198.51.100.7 ok");
  EXPECT_EQ(run.finish(200),
            "0.000 interface wan1 ACTIVE\n"
            "0.000 routes ipv4 default\n"
            "    route 0.0.0.0/0 via 10.0.0.1 weight 1;\n"
            "10.000 interface wan1 FAILED\n"
            "10.000 routes ipv4 default\n"
            "104.000 interface wan1 ACTIVE\n"  // last found unhealthy in the cycle of second 99
            "104.000 routes ipv4 default\n"
            "    route 0.0.0.0/0 via 10.0.0.1 weight 1;\n");
}

TEST(Simulation, BurstsAreJudgedByTheirLimits) {
  SimulatedRun run(block("health", interface_block("wan1", "nexthop 10.0.0.1\nsuccess-ct 1",
                                                   test_block(1,
                                                              "type ping_ext\ntarget 198.51.100.7\n"
                                                              "loss 20\nrtt 100\njitter 30"))) +
                   ipv4_rule("1_ipv4", member("wan1", 1)));
  run.feed("0 burst wan1 198.51.100.7 19 99 29");
  run.feed("1 burst wan1 198.51.100.7 20 99 29");
  run.feed("2 burst wan1 198.51.100.7 19 99 29");
  run.feed("3 burst wan1 198.51.100.7 19 100 29");
  run.feed("4 burst wan1 198.51.100.7 19 99 29");
  run.feed("5 burst wan1 198.51.100.7 19 99 30");
  const std::string text = run.finish();
  for (const char* change : {"0.000 interface wan1 ACTIVE", "1.000 interface wan1 FAILED",
                             "2.000 interface wan1 ACTIVE", "3.000 interface wan1 FAILED",
                             "4.000 interface wan1 ACTIVE", "5.000 interface wan1 FAILED"})
    EXPECT_NE(text.find(change), std::string::npos) << change << " in\n" << text;
}

TEST(Simulation, KeepsLastRoutesWhereItIsAsked) {
  SimulatedRun run(block("options", "keep-last-routes") + kTwoUplinks);
  run.feed("0 probe wan1 198.51.100.7 ok");
  run.feed("1 probe wan1 198.51.100.7 fail");
  run.feed("2 probe wan1 198.51.100.7 fail");
  EXPECT_EQ(run.finish(9),
            "0.000 interface wan1 ACTIVE\n"
            "0.000 routes ipv4 default\n"
            "    route 0.0.0.0/0 via 10.0.0.1 weight 1;\n"
            "2.000 interface wan1 FAILED\n");
}

TEST(Simulation, WhatTheDaemonHasNoWorkerForIsNotSettled) {
  SimulatedRun run(block("health", interface_block("wan1", "nexthop 10.0.0.1\nsuccess-ct 1",
                                                   test_block(1, "type ping"))));
  run.feed("0 probe wan1 10.0.0.1 ok");
  EXPECT_EQ(run.finish(), "");
}

TEST(Simulation, UntilEndsInTheMiddle) {
  SimulatedRun run(kTwoUplinks);
  run.feed("0.5 probe wan1 198.51.100.7 ok");
  EXPECT_EQ(run.finish(0), "") << "the line belongs to the cycle of second 1";
}

TEST(Simulation, RefusesWhatTheConfigurationDoesNotHave) {
  SimulatedRun run(kTwoUplinks);
  const std::vector<std::pair<const char*, const char*>> bad = {
      {"1 probe wan9 198.51.100.7 ok", "no IPv4 interface 'wan9'"},
      {"1 probe wan1/6 198.51.100.7 ok", "no IPv6 interface 'wan1'"},
      {"1 probe wan1 198.51.100.9 ok", "no test of the target '198.51.100.9'"},
      {"1 probe wan2 10.0.1.1 ok", "no next hop yet"},
      {"1 burst wan1 198.51.100.7 0 1 1", "no ping_ext test"},
      {"1 nexthop wan2 2001:db8::1", "no IPv4 address"},
  };
  for (const auto& [line, words] : bad) {
    const auto [status, text] = run.refusal(line);
    EXPECT_EQ(status, kExitUsage) << line;
    EXPECT_NE(text.find(words), std::string::npos) << line << ": " << text;
  }
}

TEST(Simulation, RefusesTimesThatFall) {
  SimulatedRun run(kTwoUplinks);
  run.feed("5.5 probe wan1 198.51.100.7 ok");
  run.feed("5.5 probe wan1 198.51.100.7 ok");
  EXPECT_EQ(run.refusal("5.4 probe wan1 198.51.100.7 ok").first, kExitUnreadable);
}

// What the daemon does, every step in every cycle: the measure for the simulation, which leaves
// most of them out.
class EveryCycle {
 public:
  EveryCycle(LBConfig& config, SimulationObserver& observer)
      : config_(config), observer_(observer) {
    keep_log_messages(false);
    for (const bool ipv6 : {false, true}) {
      for (auto& [name, interface] : config.interfaces_of(ipv6)) {
        for (auto& [index, test] : interface.tests)
          test = std::make_shared<TraceTest>(configured(*test), ipv6);
        workers_[{interface.vrf, ipv6}].vrf = interface.vrf;
        workers_[{interface.vrf, ipv6}].ipv6 = ipv6;
      }
    }
  }
  ~EveryCycle() { keep_log_messages(true); }

  void run(const std::vector<TraceLine>& lines, int64_t last) {
    size_t at = 0;
    for (int64_t cycle = 0; cycle <= last; ++cycle) {
      time_.set(cycle);
      start_probes();
      for (; at < lines.size() && lines[at].time <= cycle * kNanosecondsPerSecond; ++at)
        take(lines[at]);
      for (auto& [key, worker] : workers_) run_worker(cycle, worker);
    }
  }

 private:
  LBInterface& interface_of(const TraceLine& line) {
    std::string name;
    bool ipv6 = false;
    parse_interface_label(line.interface, name, ipv6);
    return config_.interfaces_of(ipv6).at(name);
  }

  void start_probes() {
    for (const bool ipv6 : {false, true}) {
      for (auto& [name, interface] : config_.interfaces_of(ipv6)) {
        for (auto& [index, test] : interface.tests) test->send(interface, {});
      }
    }
  }

  void take(const TraceLine& line) {
    LBInterface& interface = interface_of(line);
    if (line.kind == TraceKind::kNexthop) {
      {
        const MutexLock lock(interface.mutex);
        interface.state.nexthop_address = line.address;
      }
      start_probes();
    } else {
      record_result(interface, line.is_good ? kProbeSuccess : kProbeFailure,
                    std::string(line.target));
    }
  }

  void run_worker(int64_t cycle, LBWorkerContext& worker) {
    for (auto& [name, interface] : config_.interfaces_of(worker.ipv6)) {
      if (interface.vrf != worker.vrf) continue;
      const bool was = interface.snapshot().active;
      evaluate_state(interface, worker);
      const bool is = interface.snapshot().active;
      if (is != was) observer_.interface_changed(cycle, interface, is);
    }
    const RouteSyntax& syntax = route_syntax(*config_.options);
    RoutePlan plan = plan_static_routes(config_, worker.ipv6, worker.vrf, syntax);
    if (config_.options->keeps_last_routes)
      plan = keepers_[&worker].keep(std::move(plan), {}, config_, worker, syntax).plan;
    const std::string body = write_static_routes(plan, syntax).body;
    if (body != std::exchange(bodies_[&worker], body))
      observer_.routes_changed(cycle, worker.vrf, worker.ipv6, body);
  }

  LBConfig& config_;
  SimulationObserver& observer_;
  VirtualTime time_{0};
  std::map<std::pair<std::string, bool>, LBWorkerContext> workers_;
  std::map<const LBWorkerContext*, RouteKeeper> keepers_;
  std::map<const LBWorkerContext*, std::string> bodies_;
};

using Random = std::minstd_rand;

int choose(Random& random, int least, int most) {
  return std::uniform_int_distribution<int>(least, most)(random);
}

// Some interfaces of both families in two VRFs; tests of targets and of next hops.
std::string random_configuration(Random& random) {
  std::string health;
  std::string members[2][2];
  for (int number = 1; number <= 6; ++number) {
    const bool ipv6 = number > 4;
    const bool blue = number % 3 == 0;
    const std::string name = "wan" + std::to_string(number);
    std::string keywords = "success-ct " + std::to_string(choose(random, 1, 3)) + "\nfailure-ct " +
                           std::to_string(choose(random, 1, 3));
    if (choose(random, 0, 1) == 1)
      keywords += "\nhold-down " + std::to_string(choose(random, 1, 20));
    if (choose(random, 0, 1) == 1) keywords += "\ncheck_all";
    if (blue) keywords += "\nnamespace blue";
    const std::string prefix = ipv6 ? "2001:db8::" : "10.0.0.";
    keywords += choose(random, 0, 1) == 1 ? "\nnexthop kernel"
                                          : "\nnexthop " + prefix + std::to_string(number);
    std::string tests;
    for (int index = 1; index <= choose(random, 1, 3); ++index) {
      const bool of_nexthop = index == 3;
      tests += test_block(index, of_nexthop
                                     ? "type ping"
                                     : "type ping\ntarget " + prefix + std::to_string(90 + index));
    }
    const std::string head = (ipv6 ? "interface6 " : "interface ") + name;
    health += block(head, keywords + "\n" + tests);
    members[ipv6 ? 1 : 0][blue ? 1 : 0] +=
        block(head, "weight " + std::to_string(choose(random, 0, 2)));
  }
  std::string text = choose(random, 0, 1) == 1 ? block("options", "keep-last-routes") : "";
  text += block("health", health);
  for (const int ipv6 : {0, 1}) {
    for (const int blue : {0, 1}) {
      const std::string name = std::to_string(1 + blue) + (ipv6 == 1 ? "_ipv6" : "_ipv4");
      text += block("rule " + name,
                    std::string(blue == 1 ? "namespace blue\n" : "") +
                        (choose(random, 0, 1) == 1 ? "failover\n" : "") + members[ipv6][blue] +
                        block("target", ipv6 == 1 ? "address ::/0" : "address 0.0.0.0/0"));
    }
  }
  return text;
}

// Lines for it that are not refused: a probe of the next hop is left out, since what it probes
// depends on what was found.
std::vector<std::string> random_trace(Random& random, const LBConfig& config) {
  std::vector<std::string> lines;
  int64_t milliseconds = 0;
  const int count = choose(random, 20, 150);
  for (int at = 0; at < count; ++at) {
    milliseconds +=
        choose(random, 0, 4) == 0 ? choose(random, 1000, 30'000) : choose(random, 0, 700);
    const bool ipv6 = choose(random, 1, 6) > 4;
    const InterfaceMap& interfaces = config.interfaces_of(ipv6);
    const auto& [name, interface] =
        *std::next(interfaces.begin(), choose(random, 0, static_cast<int>(interfaces.size()) - 1));
    const std::string start = std::to_string(milliseconds / 1000) + "." +
                              std::to_string(1000 + milliseconds % 1000).substr(1) + " ";
    const std::string label = interface_label(name, ipv6);
    const auto& test = std::next(interface.tests.begin(),
                                 choose(random, 0, static_cast<int>(interface.tests.size()) - 1));
    const std::string target = configured(*test->second).target();
    if (interface.discovers_nexthop() && choose(random, 0, 5) == 0) {
      lines.push_back(start + "nexthop " + label +
                      (choose(random, 0, 2) == 0 ? " -"
                       : ipv6 ? " 2001:db8::1:" + std::to_string(choose(random, 1, 3))
                              : " 10.9.0." + std::to_string(choose(random, 1, 3))));
    } else if (!target.empty()) {
      lines.push_back(start + "probe " + label + " " + target +
                      (choose(random, 0, 2) == 0 ? " fail" : " ok"));
    }
  }
  return lines;
}

TEST(Simulation, LeavingOutIdleStepsChangesNothing) {
  size_t printed = 0;
  for (unsigned int seed = 1; seed <= 400; ++seed) {
    Random random(seed);
    const std::string text = random_configuration(random);
    const auto first = load_configuration_text(text, "first");
    const auto second = load_configuration_text(text, "second");
    ASSERT_TRUE(first->complete) << text;
    const std::vector<std::string> trace = random_trace(random, first->model);
    std::vector<TraceLine> lines(trace.size());
    for (size_t at = 0; at < trace.size(); ++at)
      ASSERT_EQ(parse_trace_line(trace[at], lines[at]), nullptr) << trace[at];
    const int64_t last = (lines.empty() ? 0 : lines.back().time / kNanosecondsPerSecond) + 40;

    SimulationDocument found;
    {
      Simulation simulation(first->model, found);
      for (const TraceLine& line : lines) simulation.take(line);
      simulation.finish(last);
    }
    SimulationDocument expected;
    EveryCycle(second->model, expected).run(lines, last);
    const Json events = found.take();
    printed += events["events"].size();
    std::string all;
    for (const std::string& line : trace) all += line + "\n";
    ASSERT_EQ(events.dump(1), expected.take().dump(1)) << "seed " << seed << "\n" << text << all;
  }
  EXPECT_GT(printed, 4000U) << "the traces move nothing";
}

}  // namespace
