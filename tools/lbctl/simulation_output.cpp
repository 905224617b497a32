#include "lbctl/simulation_output.h"

#include <algorithm>

#include <fmt/format.h>

#include "lbctl/families.h"

namespace lbctl {

namespace {

std::vector<std::string> lines_of(const std::string& body) {
  std::vector<std::string> lines;
  for (size_t start = 0; start < body.size();) {
    const size_t end = std::min(body.find('\n', start), body.size());
    lines.push_back(body.substr(start, end - start));
    start = end + 1;
  }
  return lines;
}

}  // namespace

void SimulationText::interface_changed(int64_t time, const LBInterface& interface, bool active) {
  const std::string state = active ? coloured("ACTIVE", Colour::kGreen, with_colour_)
                                   : coloured("FAILED", Colour::kRed, with_colour_);
  print_(fmt::format("{}.000 interface {} {}\n", time,
                     printable(interface_label(interface.name, interface.ipv6)), state));
}

void SimulationText::routes_changed(int64_t time, const std::string& vrf, bool ipv6,
                                    const std::string& body) {
  std::string text = fmt::format("{}.000 routes {} {}\n", time, family_word(ipv6), printable(vrf));
  for (const std::string& line : lines_of(body)) text += "    " + printable(line) + "\n";
  print_(text);
}

void SimulationDocument::interface_changed(int64_t time, const LBInterface& interface,
                                           bool active) {
  events_.push_back({{"time", time},
                     {"kind", "interface"},
                     {"interface", interface.name},
                     {"family", interface.ipv6 ? 6 : 4},
                     {"state", active ? "active" : "failed"}});
}

void SimulationDocument::routes_changed(int64_t time, const std::string& vrf, bool ipv6,
                                        const std::string& body) {
  events_.push_back({{"time", time},
                     {"kind", "routes"},
                     {"vrf", vrf},
                     {"family", ipv6 ? 6 : 4},
                     {"routes", lines_of(body)}});
}

Json SimulationDocument::take() {
  Json result = document("simulate");
  result["events"] = std::move(events_);
  return result;
}

void SimulationAudience::interface_changed(int64_t time, const LBInterface& interface,
                                           bool active) {
  for (SimulationObserver* const observer : observers_)
    observer->interface_changed(time, interface, active);
}

void SimulationAudience::routes_changed(int64_t time, const std::string& vrf, bool ipv6,
                                        const std::string& body) {
  for (SimulationObserver* const observer : observers_)
    observer->routes_changed(time, vrf, ipv6, body);
}

bool SimulationAudience::wants_outcomes() const {
  return std::any_of(observers_.begin(), observers_.end(),
                     [](const SimulationObserver* observer) { return observer->wants_outcomes(); });
}

void SimulationAudience::outcome(int64_t time, const LBInterface& interface, bool is_good) {
  for (SimulationObserver* const observer : observers_)
    if (observer->wants_outcomes()) observer->outcome(time, interface, is_good);
}

}  // namespace lbctl
