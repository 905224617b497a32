#include "lbctl/trace_run.h"

#include <fmt/format.h>

#include "lbctl/command.h"
#include "lbctl/trace_line.h"

namespace lbctl {

namespace {

Failure at_line(const LineReader& trace, int status, const std::string& fault) {
  return {status, fmt::format("{}:{}: {}", trace.name(), trace.number(), fault)};
}

}  // namespace

void run_trace(LineReader& trace, Simulation& simulation, std::optional<int64_t> until) {
  std::string_view text;
  TraceLine line;
  for (auto found = trace.next(text); found != LineReader::Found::kEnd; found = trace.next(text)) {
    const char* const fault = found == LineReader::Found::kTooLong ? "the line is too long"
                                                                   : parse_trace_line(text, line);
    if (fault != nullptr) throw at_line(trace, kExitUnreadable, fault);
    if (line.kind == TraceKind::kNothing) continue;
    if (until && line.time > *until) break;
    try {
      simulation.take(line);
    } catch (const Failure& failure) {
      throw at_line(trace, failure.exit_status(), failure.what());
    }
  }
  simulation.finish(until ? std::optional(*until / kNanosecondsPerSecond) : std::nullopt);
}

}  // namespace lbctl
