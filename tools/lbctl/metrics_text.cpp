#include "lbctl/metrics_text.h"

#include <algorithm>
#include <charconv>
#include <cmath>
#include <cstdint>
#include <iterator>
#include <utility>
#include <vector>

#include <fmt/format.h>

#include "config/health_test.h"
#include "lbctl/families.h"

namespace lbctl {

namespace {

constexpr const char* kActive = "wan_lb_interface_active";
constexpr const char* kChanges = "wan_lb_interface_state_changes_total";
constexpr const char* kLastChange = "wan_lb_interface_last_change_timestamp_seconds";

// Ages are whole seconds, and so the moment of one change is told within a second or two.
constexpr double kSameMoment = 2;

// A label's value. The format is UTF-8: bytes that are none would spoil the whole file.
std::string escaped(std::string_view value) {
  std::string result;
  for (const char character : value) {
    const auto byte = static_cast<unsigned char>(character);
    if (character == '\\' || character == '"') {
      result += '\\';
      result += character;
    } else if (character == '\n') {
      result += "\\n";
    } else {
      result += byte < 0x20 || byte >= 0x7F ? '?' : character;
    }
  }
  return result;
}

using Labels = std::vector<std::pair<const char*, std::string>>;

std::string series_of(std::string_view name, const Labels& labels) {
  std::string text(name);
  for (const auto& [label, value] : labels) {
    text += text.size() == name.size() ? '{' : ',';
    text += fmt::format("{}=\"{}\"", label, escaped(value));
  }
  return labels.empty() ? text : text + '}';
}

// One metric and its samples, in the order in which they were added.
class Metric {
 public:
  Metric(const char* name, const char* type, const char* help)
      : name_(name), head_(fmt::format("# HELP {} {}\n# TYPE {} {}\n", name, help, name, type)) {}

  // The first sample of a series counts: no series may be there twice.
  void add(const Labels& labels, double value) {
    const std::string series = series_of(name_, labels);
    if (samples_.try_emplace(series, value).second) lines_ += fmt::format("{} {}\n", series, value);
  }

  // Nothing without samples.
  std::string text() const { return lines_.empty() ? "" : head_ + lines_; }

 private:
  const char* const name_;
  const std::string head_;
  std::string lines_;
  Samples samples_;
};

Labels labels_of(const InterfaceDump& interface) {
  return {{"interface", interface.name},
          {"family", family_word(interface.ipv6)},
          {"vrf", interface.vrf}};
}

std::optional<double> find(const Samples& samples, const char* name, const Labels& labels) {
  const auto found = samples.find(series_of(name, labels));
  return found == samples.end() ? std::nullopt : std::optional(found->second);
}

// How often the state changed at least since `active` and `changed` were true.
int changes_since(double active, double changed, const InterfaceDump& interface,
                  double last_change) {
  if ((active != 0) != interface.active) return 1;
  if (last_change - changed <= kSameMoment) return 0;
  // Failed and never found healthy: the daemon was started anew, where every interface begins so.
  if (!interface.active && interface.success_age == 0) return 0;
  return 2;
}

std::string interface_metrics(const Dumps& dumps, const WrittenTimes& written,
                              const std::optional<Samples>& earlier) {
  Metric active(kActive, "gauge", "Whether routes may use the interface.");
  Metric changes(kChanges, "counter",
                 "Changes of the interface's state, as far as they were seen.");
  Metric last(kLastChange, "gauge",
              "When the interface's state last changed, or its worker was started.");
  for (const InterfaceDump& interface : dumps.interfaces) {
    const Labels labels = labels_of(interface);
    auto last_change = static_cast<double>(written.of(interface.ipv6) - interface.change_age);
    if (earlier) {
      const auto was_active = find(*earlier, kActive, labels);
      const auto was_changed = find(*earlier, kLastChange, labels);
      double count = find(*earlier, kChanges, labels).value_or(0);
      if (was_active && was_changed) {
        const int more = changes_since(*was_active, *was_changed, interface, last_change);
        count += more;
        // The same moment keeps its number.
        if (more == 0 && std::abs(last_change - *was_changed) <= kSameMoment)
          last_change = *was_changed;
      }
      changes.add(labels, count);
    }
    active.add(labels, interface.active ? 1 : 0);
    last.add(labels, last_change);
  }
  return active.text() + changes.text() + last.text();
}

std::string test_metrics(const Dumps& dumps) {
  Metric success("wan_lb_test_success", "gauge",
                 "Whether the target's last probe succeeded; of several tests, all of theirs.");
  Metric loss("wan_lb_test_loss_ratio", "gauge", "Loss of the last burst, 0 to 1.");
  Metric rtt("wan_lb_test_rtt_seconds", "gauge", "Mean round trip time of the last burst.");
  Metric jitter("wan_lb_test_jitter_seconds", "gauge",
                "Longest round trip time of the last burst less the mean one.");
  for (const InterfaceDump& interface : dumps.interfaces) {
    // An interface may probe one target in two ways. What failed is added first.
    for (const int32_t result : {kResultFailure, kResultSuccess}) {
      for (const TestDump& test : interface.tests) {
        if (test.result != result) continue;
        Labels labels = labels_of(interface);
        labels.emplace_back("target", test.target);
        success.add(labels, result == kResultSuccess ? 1 : 0);
        if (!test.measurement) continue;
        loss.add(labels, test.measurement->measured_loss / 100.0);
        rtt.add(labels, test.measurement->measured_rtt / 1000.0);
        jitter.add(labels, test.measurement->measured_jitter / 1000.0);
      }
    }
  }
  return success.text() + loss.text() + rtt.text() + jitter.text();
}

std::string route_metrics(const Dumps& dumps) {
  Metric nexthop("wan_lb_route_nexthop_info", "gauge",
                 "The next hop that a failover rule has chosen for the destination; always 1.");
  for (const RuleDump& rule : dumps.rules) {
    for (const RouteDump& route : rule.routes) {
      if (route.nexthop.empty()) continue;
      nexthop.add({{"destination", route.destination},
                   {"nexthop", route.nexthop},
                   {"family", family_word(rule.ipv6)},
                   {"vrf", rule.vrf}},
                  1);
    }
  }
  return nexthop.text();
}

}  // namespace

Samples read_samples(std::string_view text) {
  Samples samples;
  while (!text.empty()) {
    const std::string_view line = text.substr(0, text.find('\n'));
    text.remove_prefix(std::min(line.size() + 1, text.size()));
    const size_t blank = line.rfind(' ');
    if (line.starts_with('#') || blank == std::string_view::npos) continue;
    double value = 0;
    const char* const end = line.data() + line.size();
    const auto [stop, error] = std::from_chars(line.data() + blank + 1, end, value);
    if (error == std::errc() && stop == end && std::isfinite(value))
      samples.insert_or_assign(std::string(line.substr(0, blank)), value);
  }
  return samples;
}

std::string metrics_text(const Dumps& dumps, const WrittenTimes& written,
                         const std::optional<Samples>& earlier) {
  Metric last_write("wan_lb_last_write_timestamp_seconds", "gauge",
                    "When the daemon last wrote its dump files.");
  last_write.add({}, static_cast<double>(dumps.newest.tv_sec));
  return interface_metrics(dumps, written, earlier) + test_metrics(dumps) + route_metrics(dumps) +
         last_write.text();
}

}  // namespace lbctl
