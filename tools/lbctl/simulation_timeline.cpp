#include "lbctl/simulation_timeline.h"

#include <algorithm>
#include <optional>

#include <fmt/format.h>

#include "lbctl/families.h"
#include "lbctl/print.h"

namespace lbctl {

namespace {

constexpr size_t kMostRouteStyles = 1000;
constexpr size_t kLongestName = 140;

// All route lines in one, as far as there is room.
std::string name_of_routes(const std::string& body) {
  std::string name;
  for (size_t start = 0; start < body.size();) {
    const size_t end = std::min(body.find('\n', start), body.size());
    const std::string line = body.substr(start, end - start);
    if (!name.empty() && name.size() + line.size() > kLongestName) {
      const auto rest =
          std::count(body.begin() + static_cast<std::ptrdiff_t>(start), body.end(), '\n');
      return name + fmt::format(" (and {} more)", rest);
    }
    name += (name.empty() ? "" : " ") + line;
    start = end + 1;
  }
  return name;
}

template <class Change>
std::vector<TimelineSpan> spans_of(const std::vector<Change>& changes, int64_t begin, int64_t end,
                                   std::optional<size_t> first_style,
                                   std::optional<size_t> empty_style) {
  std::vector<TimelineSpan> spans;
  int64_t from = begin;
  std::optional<size_t> style = first_style;
  const auto add = [&](int64_t to) {
    if (style && style != empty_style && to > from)
      spans.push_back({static_cast<double>(from), static_cast<double>(to), *style});
  };
  for (const Change& change : changes) {
    add(change.time);
    from = change.time;
    style = change.style;
  }
  add(end);
  return spans;
}

}  // namespace

void OutcomeCounter::add(int64_t time, int64_t begin, bool is_good) {
  while (static_cast<size_t>((time - begin) / width_) >= kSpans) widen();
  Count& count = counts_.at(static_cast<size_t>((time - begin) / width_));
  ++(is_good ? count.good : count.bad);
}

void OutcomeCounter::widen() {
  width_ *= 2;
  for (size_t at = 0; at < kSpans; ++at) {
    const Count first = 2 * at < kSpans ? counts_.at(2 * at) : Count{};
    const Count second = 2 * at + 1 < kSpans ? counts_.at(2 * at + 1) : Count{};
    counts_.at(at) = {first.good + second.good, first.bad + second.bad};
  }
}

std::vector<OutcomeCount> OutcomeCounter::counts(int64_t begin) const {
  std::vector<OutcomeCount> counts;
  for (size_t at = 0; at < kSpans; ++at) {
    const Count& count = counts_.at(at);
    const auto from = static_cast<double>(begin + static_cast<int64_t>(at) * width_);
    if (count.good + count.bad != 0)
      counts.push_back({from, from + static_cast<double>(width_), count.good, count.bad});
  }
  return counts;
}

SimulationTimeline::SimulationTimeline(const LBConfig& config) {
  for (const bool ipv6 : {false, true}) {
    for (const auto& [name, interface] : config.interfaces_of(ipv6)) {
      places_[&interface] = interfaces_.size();
      interfaces_.push_back({&interface, {}, {}});
    }
  }
}

void SimulationTimeline::interface_changed(int64_t time, const LBInterface& interface,
                                           bool active) {
  interfaces_.at(places_.at(&interface))
      .changes.push_back({time, active ? kStyleActive : kStyleFailed});
}

size_t SimulationTimeline::style_of(const std::string& body) {
  const auto [entry, is_new] = route_styles_.try_emplace(body, styles_.size());
  if (!is_new) return entry->second;
  if (styles_.size() >= kMostRouteStyles) {  // enough for any picture
    entry->second = styles_.size() - 1;
    return entry->second;
  }
  const size_t number = styles_.size() - state_styles().size();
  styles_.push_back({.name = name_of_routes(body),
                     .colour = timeline_colour(number),
                     .is_low = false,
                     .is_in_legend = !body.empty()});
  return entry->second;
}

void SimulationTimeline::routes_changed(int64_t time, const std::string& vrf, bool ipv6,
                                        const std::string& body) {
  routes_[{vrf, ipv6}].push_back({time, style_of(body)});
}

void SimulationTimeline::outcome(int64_t time, const LBInterface& interface, bool is_good) {
  const int64_t second = time / kNanosecondsPerSecond;
  if (begin_ < 0) begin_ = second;
  interfaces_[places_.find(&interface)->second].outcomes.add(second, begin_, is_good);
}

TimelineLane SimulationTimeline::interface_lane(const Interface& interface, int64_t begin,
                                                int64_t end) const {
  TimelineLane lane;
  lane.label = interface_label(interface.interface->name, interface.interface->ipv6);
  lane.spans = spans_of(interface.changes, begin, end, kStyleFailed, std::nullopt);
  lane.outcomes = interface.outcomes.counts(begin_);
  double active = 0;
  for (const TimelineSpan& span : lane.spans) {
    if (span.style == kStyleActive) active += span.to - span.from;
  }
  if (end > begin)
    lane.note = fmt::format("{:.3f} %", 100 * active / static_cast<double>(end - begin));
  return lane;
}

std::string SimulationTimeline::draw(int64_t begin, int64_t end, const std::string& title) const {
  Timeline timeline;
  timeline.title = title;
  timeline.begin = static_cast<double>(begin);
  timeline.end = static_cast<double>(end);
  timeline.styles = styles_;
  for (const Interface& interface : interfaces_)
    timeline.lanes.push_back(interface_lane(interface, begin, end));
  const auto empty = route_styles_.find("");
  const auto empty_style =
      empty == route_styles_.end() ? std::nullopt : std::optional<size_t>(empty->second);
  for (const auto& [key, changes] : routes_) {
    TimelineLane lane;
    lane.label = fmt::format("routes {} {}", family_word(key.second), key.first);
    lane.spans = spans_of(changes, begin, end, std::nullopt, empty_style);
    timeline.lanes.push_back(std::move(lane));
  }
  return draw_timeline(timeline);
}

}  // namespace lbctl
