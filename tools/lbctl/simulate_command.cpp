// lbctl simulate: what would the daemon do with this configuration, if this happened?
#include <memory>
#include <optional>
#include <string>

#include <fmt/format.h>

#include "lbctl/command.h"
#include "lbctl/configuration.h"
#include "lbctl/line_reader.h"
#include "lbctl/print.h"
#include "lbctl/simulation.h"
#include "lbctl/simulation_output.h"
#include "lbctl/simulation_timeline.h"
#include "lbctl/timeline_svg.h"
#include "lbctl/trace_run.h"

namespace lbctl {

namespace {

struct SimulateOptions {
  std::string configuration;
  std::string trace;
  std::string picture;
  std::string until;
  bool json = false;
};

std::optional<int64_t> time_of(const std::string& text) {
  if (text.empty()) return std::nullopt;
  int64_t time = 0;
  if (!parse_trace_time(text, time))
    throw usage_error(fmt::format("--until {}: not a time in seconds", text));
  return time;
}

int run_simulate(const SimulateOptions& options) {
  const std::optional<int64_t> until = time_of(options.until);
  const auto configuration = load_configuration(options.configuration);
  if (!configuration->complete) {
    complain(
        fmt::format("{}: the brackets do not match; what was read before counts, as for the "
                    "daemon (see lbctl check)",
                    options.configuration));
  }
  LineReader trace(options.trace);

  SimulationText text(print_text, wants_colour());
  SimulationDocument document;
  SimulationTimeline timeline(configuration->model);
  SimulationAudience audience;
  audience.add(options.json ? static_cast<SimulationObserver&>(document) : text);
  if (!options.picture.empty()) audience.add(timeline);
  Simulation simulation(configuration->model, audience);
  run_trace(trace, simulation, until);

  if (options.json) print_document(document.take());
  if (!options.picture.empty()) {
    write_picture(options.picture,
                  timeline.draw(simulation.first_time() / kNanosecondsPerSecond, simulation.end(),
                                fmt::format("{} with {}", options.configuration, trace.name())));
  }
  return kExitOk;
}

}  // namespace

void add_simulate_command(CLI::App& program, Action& action) {
  const auto options = std::make_shared<SimulateOptions>();
  const CommandLine command(
      program, "simulate",
      "Run a configuration through a trace of probe results, without touching the network. "
      "A trace has lines such as \"12.0 probe wan1 198.51.100.7 fail\", "
      "\"30.0 burst wan2 198.51.100.8 20 150 30\" (loss in %, rtt and jitter in ms) and "
      "\"31.0 nexthop wan3 192.0.2.1\"; lbctl record writes one. An IPv6 interface is \"wan1/6\".",
      "lbctl simulate /etc/wan_lb/lb.conf trace.txt --svg timeline.svg");
  command.value("FILE", options->configuration, "The configuration").required();
  command.value("TRACE", options->trace, "The trace; - for standard input").required();
  command.flag("--json", options->json, "Print one JSON document (wan_lb/simulate/1)");
  command.value("--svg", options->picture, "Draw the timeline into this file");
  command.value("--until", options->until,
                "Stop at this time of the trace, in seconds; without later lines it goes on "
                "to there");
  command.runs(action, [options] { return run_simulate(*options); });
}

}  // namespace lbctl
