#include "lbctl/history_output.h"

#include <algorithm>
#include <cmath>
#include <ctime>

#include <fmt/format.h>

#include "lbctl/timeline_svg.h"

namespace lbctl {

namespace {

std::string time_text(int64_t time) {
  return rfc3339(static_cast<std::time_t>(time / kMicroseconds));
}

double seconds(int64_t microseconds) {
  return static_cast<double>(microseconds) / static_cast<double>(kMicroseconds);
}

double rounded(double value, double steps) { return std::round(value * steps) / steps; }

Json number_or_null(const std::optional<double>& value, double steps) {
  return value ? Json(rounded(*value, steps)) : Json(nullptr);
}

std::string label_of(const std::string& name, bool ipv6) {
  return printable(interface_label(name, ipv6));
}

const char* state_word(bool active) { return active ? "ACTIVE" : "FAILED"; }

}  // namespace

std::string history_text(const History& history, bool with_colour) {
  if (history.interfaces.empty()) return "no state change of an interface is logged\n";
  size_t width = 9;  // "INTERFACE"
  for (const HistoryInterface& interface : history.interfaces)
    width = std::max(width, label_of(interface.name, interface.ipv6).size());
  std::string text = fmt::format("from {} to {}\n\n{:{}}  {:>12}  {:>7}  {:>10}\n",
                                 time_text(history.begin), time_text(history.end), "INTERFACE",
                                 width, "AVAILABILITY", "CHANGES", "FLAPS/DAY");
  for (const HistoryInterface& interface : history.interfaces) {
    const std::string availability = interface.availability_percent
                                         ? fmt::format("{:.3f} %", *interface.availability_percent)
                                         : "unknown";
    const std::string flaps =
        interface.flaps_per_day ? fmt::format("{:.2f}", *interface.flaps_per_day) : "unknown";
    text += fmt::format("{:{}}  {:>12}  {:>7}  {:>10}\n", label_of(interface.name, interface.ipv6),
                        width, availability, interface.changes, flaps);
  }
  if (!history.changes.empty()) text += "\n";
  for (const HistoryChange& entry : history.changes) {
    const StateChange& change = entry.change;
    text += fmt::format("{}  {:{}}  {}  for {}\n", time_text(change.time),
                        label_of(change.interface, change.ipv6), width,
                        coloured(state_word(change.active),
                                 change.active ? Colour::kGreen : Colour::kRed, with_colour),
                        span(entry.duration / kMicroseconds));
  }
  return text;
}

Json history_document(const History& history) {
  Json result = document("history");
  result["interfaces"] = Json::array();
  for (const HistoryInterface& interface : history.interfaces) {
    result["interfaces"].push_back(
        {{"name", interface.name},
         {"family", interface.ipv6 ? 6 : 4},
         {"availability_percent", number_or_null(interface.availability_percent, 1e6)},
         {"changes", interface.changes},
         {"flaps_per_day", number_or_null(interface.flaps_per_day, 1e6)}});
  }
  result["changes"] = Json::array();
  for (const HistoryChange& entry : history.changes) {
    result["changes"].push_back({{"time", time_text(entry.change.time)},
                                 {"interface", entry.change.interface},
                                 {"family", entry.change.ipv6 ? 6 : 4},
                                 {"state", entry.change.active ? "active" : "failed"},
                                 {"duration", seconds(entry.duration)}});
  }
  return result;
}

std::string history_picture(const History& history) {
  Timeline timeline;
  timeline.title =
      fmt::format("Interfaces from {} to {}", time_text(history.begin), time_text(history.end));
  timeline.begin = seconds(history.begin);
  timeline.end = seconds(history.end);
  timeline.is_date = true;
  timeline.styles = state_styles();
  for (const HistoryInterface& interface : history.interfaces) {
    TimelineLane lane;
    lane.label = interface_label(interface.name, interface.ipv6);
    for (const HistoryInterface::Period& period : interface.periods) {
      lane.spans.push_back(
          {seconds(period.from), seconds(period.to), period.active ? kStyleActive : kStyleFailed});
    }
    if (interface.availability_percent)
      lane.note = fmt::format("{:.3f} %", *interface.availability_percent);
    timeline.lanes.push_back(std::move(lane));
  }
  return draw_timeline(timeline);
}

}  // namespace lbctl
