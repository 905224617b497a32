#include "lbctl/recorder.h"

#include <algorithm>
#include <set>

#include <fmt/format.h>

#include "config/health_test.h"
#include "lbctl/print.h"
#include "lbctl/trace_line.h"
#include "tests/burst_judge.h"

namespace lbctl {

namespace {

// More would only repeat themselves.
constexpr int32_t kMostRepeats = 10'000;

bool is_same(const std::optional<TestDump::Measurement>& a,
             const std::optional<TestDump::Measurement>& b) {
  if (!a || !b) return a.has_value() == b.has_value();
  return a->measured_loss == b->measured_loss && a->measured_rtt == b->measured_rtt &&
         a->measured_jitter == b->measured_jitter;
}

bool is_good(const TestDump::Measurement& measurement) {
  return is_acceptable(
      {measurement.measured_jitter, measurement.measured_loss, measurement.measured_rtt},
      {measurement.jitter, measurement.loss, measurement.rtt});
}

// Whether a target's counts show why the interface failed: they stand at the threshold then, or at
// nothing after a restart.
bool shows_failure(const InterfaceDump& interface) {
  return std::any_of(interface.tests.begin(), interface.tests.end(), [&](const TestDump& test) {
    return test.failure_count >= interface.failure_ct ||
           test.success_count + test.failure_count == 0;
  });
}

}  // namespace

// The lines of one interface. What has no place in a trace's line becomes a comment.
class Recorder::Lines {
 public:
  Lines(const InterfaceDump& interface, int64_t time)
      : label_(trace_word(interface_label(interface.name, interface.ipv6))),
        ipv6_(interface.ipv6),
        time_(fmt::format("{}.{:03}", time / kNanosecondsPerSecond,
                          time % kNanosecondsPerSecond / 1'000'000)) {}

  // What is no address was configured so, and changes nothing in a simulation.
  void add_nexthop(const std::string& address) {
    if (address.empty()) {
      add("nexthop", "-");
    } else if (is_trace_address(address, ipv6_)) {
      add("nexthop", address);
    }
  }

  void add_probes(const std::string& target, bool is_good, int32_t count) {
    for (int32_t at = 0; at < std::min(count, kMostRepeats); ++at)
      add("probe", trace_word(target), is_good ? " ok" : " fail");
  }

  // A burst that measured nothing leaves the figures of an earlier one: it is told as an outcome,
  // and so is one with a negative time, which a trace does not have.
  void add_outcome(const TestDump& test, bool was_good) {
    const bool has_figures = test.measurement && test.measurement->measured_rtt >= 0 &&
                             test.measurement->measured_jitter >= 0;
    if (has_figures && is_good(*test.measurement) == was_good) {
      const TestDump::Measurement& measured = *test.measurement;
      add("burst", trace_word(test.target),
          fmt::format(" {} {} {}", measured.measured_loss, measured.measured_rtt,
                      measured.measured_jitter));
    } else {
      add_probes(test.target, was_good, 1);
    }
  }

  void add_comment(const std::string& comment) {
    text_ += fmt::format("# {} {} {}\n", time_, printable(label_), printable(comment));
  }

  std::string take() { return std::move(text_); }

 private:
  void add(const char* event, const std::string& word, const std::string& rest = "") {
    const bool has_place = !label_.empty() && !word.empty();
    text_ += fmt::format("{}{} {} {} {}{}\n", has_place ? "" : "# cannot be written: ", time_,
                         event, label_, word, rest);
  }

  const std::string label_;
  const bool ipv6_;
  const std::string time_;
  std::string text_;
};

std::string Recorder::take(const std::vector<InterfaceDump>& interfaces, bool ipv6, int64_t time) {
  std::string text;
  for (const InterfaceDump& interface : interfaces) {
    Lines lines(interface, time);
    const auto [entry, is_first] = known_.try_emplace({interface.name, ipv6});
    Known& known = entry->second;
    if (is_first) begin_nexthop(interface, lines);
    if (!is_first && known.nexthop != interface.nexthop) lines.add_nexthop(interface.nexthop);
    if (is_first) {
      begin(interface, lines);
    } else {
      follow_targets(interface, known);
    }

    // A target's counts are the same in all of its tests; the first one tells them.
    const bool was_missed =
        !is_first && known.active && !interface.active && !shows_failure(interface);
    std::map<std::string, Counts> counts;
    for (const TestDump& test : interface.tests) {
      if (test.target.empty() || counts.contains(test.target)) continue;
      if (was_missed) tell_missed(interface, test, known, lines);
      const auto before = known.counts.find(test.target);
      tell_test(interface, test,
                before == known.counts.end() ? std::nullopt : std::optional(before->second), lines);
      counts[test.target] = {test.success_count, test.failure_count, test.measurement};
    }
    known.counts = std::move(counts);
    known.targets.clear();
    for (const TestDump& test : interface.tests) known.targets.push_back(test.target);

    if (is_first || known.active != interface.active)
      lines.add_comment(interface.active ? "is ACTIVE" : "is FAILED");
    known.active = interface.active;
    known.nexthop = interface.nexthop;
    text += lines.take();
  }
  return text;
}

// A test may go on with a next hop that there is no more. It was found once, so it is told first; a
// configured target takes no notice of that. (Which of several targets it is no dump tells.)
void Recorder::begin_nexthop(const InterfaceDump& interface, Lines& lines) {
  std::set<std::string> targets;
  for (const TestDump& test : interface.tests) {
    if (!test.target.empty()) targets.insert(test.target);
  }
  // One that is configured, or follows the kernel's routes, is the target itself.
  const bool may_differ =
      interface.nexthop.empty() || interface.nexthop_is_dhcp || interface.nexthop_is_tunnel;
  const bool has_other = may_differ && targets.size() == 1 && *targets.begin() != interface.nexthop;
  if (has_other) lines.add_nexthop(*targets.begin());
  if (has_other || !interface.nexthop.empty()) lines.add_nexthop(interface.nexthop);
}

// A dump does not show what a target has settled to while it has too few equal outcomes to settle
// anew. The interface's state tells: what is not known otherwise is what it is.
void Recorder::begin(const InterfaceDump& interface, Lines& lines) {
  std::set<std::string> told;
  for (const TestDump& test : interface.tests) {
    if (test.target.empty() || !told.insert(test.target).second) continue;
    const bool is_settled =
        test.success_count >= interface.success_ct || test.failure_count >= interface.failure_ct;
    if (!is_settled && interface.active) lines.add_probes(test.target, true, interface.success_ct);
    if (!is_settled && !interface.active && test.success_count + test.failure_count > 0)
      lines.add_probes(test.target, false, interface.failure_ct);
  }
}

// A test of the next hop goes over to another one with what it has counted, unless that one has
// counts of its own.
void Recorder::follow_targets(const InterfaceDump& interface, Known& known) {
  for (size_t at = 0; at < std::min(interface.tests.size(), known.targets.size()); ++at) {
    const std::string& to = interface.tests[at].target;
    const std::string& from = known.targets[at];
    const auto old = known.counts.find(from);
    if (from != to && old != known.counts.end()) known.counts.try_emplace(to, old->second);
  }
}

// The interface failed by outcomes that no dump was seen of. They are told where the counts have
// moved.
void Recorder::tell_missed(const InterfaceDump& interface, const TestDump& test, Known& known,
                           Lines& lines) {
  const auto before = known.counts.find(test.target);
  if (before == known.counts.end()) return;
  Counts& counts = before->second;
  if (counts.successes == test.success_count && counts.failures == test.failure_count) return;
  lines.add_probes(test.target, false, interface.failure_ct);
  counts.successes = 0;
  counts.failures = interface.failure_ct;
}

// One of the counts is 0 always, and an outcome that counts for one sets the other to 0.
void Recorder::tell_test(const InterfaceDump& interface, const TestDump& test,
                         const std::optional<Counts>& before, Lines& lines) {
  const Counts was = before.value_or(Counts{});
  const int32_t successes = test.success_count;
  const int32_t failures = test.failure_count;
  if (successes == was.successes && failures == was.failures) {
    // At a threshold only a burst's figures tell of another one.
    const bool has_new_figures =
        before && test.result != kResultNone && !is_same(test.measurement, was.measurement);
    if (has_new_figures) lines.add_outcome(test, test.result == kResultSuccess);
    return;
  }
  if (successes == 0 && failures == 0) {
    lines.add_comment("was started anew");
    lines.add_probes(test.target, false, interface.failure_ct);
    return;
  }
  const bool good = successes > 0;
  const int32_t now = good ? successes : failures;
  int32_t then = good ? was.successes : was.failures;
  if (now < then) {
    // There was another outcome between, which no dump was seen of.
    lines.add_probes(test.target, !good, 1);
    then = 0;
  }
  // The figures are those of the last one.
  lines.add_probes(test.target, good, now - then - 1);
  lines.add_outcome(test, good);
}

}  // namespace lbctl
