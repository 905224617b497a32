#include "lbctl/explain_tests.h"

#include <netinet/in.h>

#include <algorithm>
#include <iterator>

#include <fmt/format.h>

#include "config/health_test.h"
#include "lbctl/print.h"
#include "packets/family.h"
#include "tests/burst_judge.h"

namespace lbctl {

namespace {

bool is_address(const std::string& text, bool ipv6) {
  in6_addr address{};  // room for either family
  return address_from_text(family_of(ipv6).address_family, text, &address) == 1;
}

bool is_reached(const InterfaceDump& interface, const TestDump& test) {
  return test.success_count >= interface.success_ct;
}

// The test of the configuration at the same place; null without one.
const ConfiguredTest* configured_at(const LBInterface* known, size_t at) {
  if (known == nullptr || at >= known->tests.size()) return nullptr;
  return &configured(*std::next(known->tests.begin(), static_cast<ptrdiff_t>(at))->second);
}

// "loss 40 % (limit 20 %, reached)"
std::string figure(const char* name, int32_t value, int32_t limit, const char* unit) {
  return fmt::format("{} {} {} (limit {} {}{})", name, value, unit, limit, unit,
                     value >= limit ? ", reached" : "");
}

// A burst that ends early, because a request was not answered, leaves the figures of the one
// before.
std::string figures_of(const TestDump::Measurement& burst, bool succeeded) {
  const bool ended_early =
      !succeeded && is_acceptable({burst.measured_jitter, burst.measured_loss, burst.measured_rtt},
                                  {burst.jitter, burst.loss, burst.rtt});
  return fmt::format(
      "{} had {}, {} and {}",
      ended_early ? "a request of the last burst was not answered, which ended it; the burst before"
                  : "the last burst",
      figure("loss", burst.measured_loss, burst.loss, "%"),
      figure("mean round trip", burst.measured_rtt, burst.rtt, "ms"),
      figure("jitter", burst.measured_jitter, burst.jitter, "ms"));
}

std::string outcome_of(const InterfaceDump& interface, const TestDump& test) {
  if (test.result == kResultNone) return "no probe has had an outcome yet";
  const bool succeeded = test.result == kResultSuccess;
  const int32_t count = succeeded ? test.success_count : test.failure_count;
  const int32_t threshold = succeeded ? interface.success_ct : interface.failure_ct;
  const std::string last = test.measurement ? figures_of(*test.measurement, succeeded)
                           : succeeded      ? "the last probe was answered"
                                            : "the last probe was not answered";
  return fmt::format("{}; {} in a row, {} settle{} it as {}", last,
                     counted(count, succeeded ? "success" : "failure"), threshold,
                     threshold == 1 ? "s" : "", succeeded ? "reached" : "failed");
}

// True when the test can never be probed as it is.
bool explain_hopeless(const InterfaceDump& interface, const TestDump& test,
                      const ConfiguredTest* known, Explanation& explanation) {
  const bool is_burst = known != nullptr && known->is_burst();
  const int32_t timeout = is_burst ? known->number(TestKeyword::kTimeout) : 0;
  if (test.target.empty()) {
    explanation.add(
        "A test without target waits for the next hop, which it is to ping: it has not "
        "been probed.");
  } else if (!is_address(test.target, interface.ipv6)) {
    explanation.add(
        is_address(test.target, !interface.ipv6)
            ? fmt::format("Target {}: it is of the other family and is never probed.", test.target)
            : fmt::format("Target {}: it is no address; names are not looked up, and it is never "
                          "probed.",
                          test.target),
        fmt::format("Give the test an IPv{} address as target, then restart the daemon.",
                    interface.ipv6 ? 6 : 4));
  } else if (is_burst && (timeout <= 0 || timeout % 1000 != 0)) {
    explanation.add(
        fmt::format("Target {}: its timeout of {} ms is refused, so every burst fails: "
                    "it takes whole seconds only.",
                    test.target, timeout),
        "Make the timeout a whole number of seconds (1000, 2000, ...), then restart the "
        "daemon.");
  } else {
    return false;
  }
  return true;
}

bool needs_all(const Situation& situation, const InterfaceDump& interface) {
  const LBInterface* const known = situation.configured(interface);
  return known != nullptr && known->check_all;
}

bool is_healthy(const Situation& situation, const InterfaceDump& interface) {
  const auto reached = [&](const TestDump& test) { return is_reached(interface, test); };
  const auto& tests = interface.tests;
  if (tests.empty()) return false;
  return needs_all(situation, interface) ? std::all_of(tests.begin(), tests.end(), reached)
                                         : std::any_of(tests.begin(), tests.end(), reached);
}

// What is still to come: a test that has begun to succeed, or has no outcome as yet.
const char* what_to_wait_for(const InterfaceDump& interface) {
  const auto has = [&](int32_t result) {
    return std::any_of(interface.tests.begin(), interface.tests.end(),
                       [result](const TestDump& test) { return test.result == result; });
  };
  if (has(kResultSuccess)) return "Wait a moment: a target answers again.";
  if (has(kResultNone)) {
    return "Wait for the first outcome (a burst takes up to its count times its timeout); if none "
           "comes, look into the daemon's log.";
  }
  return "";
}

}  // namespace

bool explain_tests(const Situation& situation, const InterfaceDump& interface,
                   Explanation& explanation) {
  const LBInterface* const known = situation.configured(interface);
  if (interface.tests.empty()) {
    explanation.add(
        "It has no test, so it never becomes active: the daemon adds the one that it "
        "has by default only where the whole configuration could be read.",
        "Look for brackets that do not match: lbctl check FILE");
  }
  bool fails = false;
  for (size_t at = 0; at < interface.tests.size(); ++at) {
    const TestDump& test = interface.tests[at];
    if (explain_hopeless(interface, test, configured_at(known, at), explanation)) continue;
    explanation.add(fmt::format("Target {}: {}.", test.target, outcome_of(interface, test)));
    fails = fails || test.result == kResultFailure;
  }
  return fails;
}

void explain_way_back(const Situation& situation, const InterfaceDump& interface,
                      Explanation& explanation) {
  const LBInterface* const known = situation.configured(interface);
  const int32_t hold_down = known == nullptr ? 0 : known->hold_down;
  if (is_healthy(situation, interface)) {
    if (hold_down > 0) {
      const int64_t rest = std::max<int64_t>(0, int64_t{hold_down} - interface.failure_age);
      explanation.add(
          fmt::format("It is healthy again and held down: it comes back once it has been healthy "
                      "for {} (hold-down {}), in about {}.",
                      span(hold_down), hold_down, span(rest)),
          "Wait, or lower hold-down in its block.");
    } else if (known == nullptr) {
      explanation.add(
          "Its targets are reached: it comes back within a cycle, unless all of them "
          "are needed (check_all) or it is held down (hold-down).",
          "Wait a moment, or name the configuration (-f FILE) to be told.");
    } else {
      explanation.add("Its targets are reached: it comes back within a cycle.", "Wait a moment.");
    }
    return;
  }
  if (interface.tests.empty()) return;
  const char* const whose = interface.tests.size() == 1       ? "its target has"
                            : needs_all(situation, interface) ? "every target (check_all) has"
                            : known == nullptr ? "one of its targets (with check_all, each) has"
                                               : "any one of its targets has";
  explanation.add(fmt::format(
      "It comes back when {} been reached {}{}.", whose,
      interface.success_ct == 1 ? "once" : counted(interface.success_ct, "time") + " in a row",
      hold_down > 0 ? fmt::format(", and that for {} (hold-down)", span(hold_down)) : ""));
  if (explanation.next_step.empty() && !needs_all(situation, interface)) {
    explanation.next_step = what_to_wait_for(interface);
  }
}

std::string failed_target(const InterfaceDump& interface) {
  const auto found = std::find_if(
      interface.tests.begin(), interface.tests.end(),
      [&](const TestDump& test) { return !test.target.empty() && !is_reached(interface, test); });
  return found == interface.tests.end() ? interface.nexthop : found->target;
}

}  // namespace lbctl
