#include <CLI/CLI.hpp>

#include "lbctl/command.h"

namespace lbctl {

void add_simulate_command(CLI::App& program, Action& action) {
  CLI::App* const command = add_command(program, "simulate", "not there yet", "lbctl simulate");
  command->callback([&action] { action = []() -> int { throw usage_error("not there yet"); }; });
}

}  // namespace lbctl
