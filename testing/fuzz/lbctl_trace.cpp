// Traces: any line is refused or taken, and the simulation goes on to its end.
#include <memory>
#include <string>
#include <string_view>

#include "lbctl/command.h"
#include "lbctl/configuration.h"
#include "lbctl/simulation.h"
#include "lbctl/simulation_timeline.h"
#include "lbctl/trace_line.h"
#include "support/bytes.h"
#include "support/property.h"

namespace {

constexpr const char* kConfiguration =
    "health {\n"
    "interface a {\nnexthop kernel\nsuccess-ct 1\nhold-down 3\ntest 1 {\ntype ping\n}\n"
    "test 2 {\ntype ping_ext\ntarget 1.1.1.1\n}\n}\n"
    "interface6 a {\nnexthop fe80::1\nnamespace b\nsuccess-ct 1\n"
    "test 1 {\ntype ping\ntarget ::2\n}\n}\n"
    "}\n"
    "rule 1_ipv4 {\ninterface a {\nweight 1\n}\ntarget {\naddress 0.0.0.0/0\n}\n}\n"
    "rule 1_ipv6 {\nnamespace b\nfailover\ninterface6 a {\nweight 1\n}\ntarget {\naddress "
    "::/0\n}\n}\n";

// Changes alternate and never go back in time.
class Checker : public lbctl::SimulationTimeline {
 public:
  explicit Checker(const LBConfig& config) : SimulationTimeline(config) {}

  void interface_changed(int64_t time, const LBInterface& interface, bool active) override {
    HOLDS(time >= time_);
    time_ = time;
    bool& was = active_[interface.ipv6 ? 1 : 0];
    HOLDS(was != active);
    was = active;
    SimulationTimeline::interface_changed(time, interface, active);
  }

  void routes_changed(int64_t time, const std::string& vrf, bool ipv6,
                      const std::string& body) override {
    HOLDS(time >= time_);
    time_ = time;
    HOLDS(body.empty() || (active_[ipv6 ? 1 : 0] && body.ends_with(";\n")));
    SimulationTimeline::routes_changed(time, vrf, ipv6, body);
  }

 private:
  int64_t time_ = 0;
  bool active_[2] = {false, false};
};

void check_words(std::string_view text, const lbctl::TraceLine& line) {
  const auto is_inside = [text](std::string_view word) {
    return word.empty() ||
           (word.data() >= text.data() && word.data() + word.size() <= text.data() + text.size());
  };
  HOLDS(line.time >= 0);
  HOLDS(is_inside(line.interface) && is_inside(line.target) && is_inside(line.subject) &&
        is_inside(line.address));
  // What was read can be written, and is read again as the same.
  const std::string word = lbctl::trace_word(line.interface);
  if (word.empty()) return;
  const std::string again = "1 nexthop " + word + " -";
  lbctl::TraceLine second;
  HOLDS(lbctl::parse_trace_line(again, second) == nullptr && second.interface == line.interface);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const ExactCopy copy({data, size});
  const auto configuration = lbctl::load_configuration_text(kConfiguration, "fuzz");
  HOLDS(configuration->complete);
  Checker checker(configuration->model);
  lbctl::Simulation simulation(configuration->model, checker);
  const std::string_view text = copy.text();
  for (size_t start = 0; start < text.size();) {
    const size_t end = std::min(text.find('\n', start), text.size());
    const std::string_view words = text.substr(start, end - start);
    start = end + 1;
    lbctl::TraceLine line;
    if (lbctl::parse_trace_line(words, line) != nullptr) continue;
    if (line.kind == lbctl::TraceKind::kNothing) continue;
    check_words(words, line);
    try {
      simulation.take(line);
    } catch (const lbctl::Failure& failure) {
      HOLDS(failure.exit_status() == lbctl::kExitUsage ||
            failure.exit_status() == lbctl::kExitUnreadable);
    }
  }
  simulation.finish(std::nullopt);
  const std::string picture = checker.draw(simulation.first_time() / lbctl::kNanosecondsPerSecond,
                                           simulation.end(), "fuzz");
  HOLDS(picture.ends_with("</svg>\n"));
  return 0;
}
