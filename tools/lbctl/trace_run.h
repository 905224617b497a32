// A trace of any length, run through a simulation.
#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include "lbctl/line_reader.h"
#include "lbctl/simulation.h"

namespace lbctl {

// Takes the lines up to the time `until` (nanoseconds), and ends the simulation there; without it
// all lines. A line that is refused is a Failure that names the trace and the line's number.
void run_trace(LineReader& trace, Simulation& simulation, std::optional<int64_t> until);

}  // namespace lbctl
