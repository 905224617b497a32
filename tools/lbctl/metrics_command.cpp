#include <CLI/CLI.hpp>

#include "lbctl/command.h"

namespace lbctl {

void add_metrics_command(CLI::App& program, Action& action) {
  CLI::App* const command = add_command(program, "metrics", "not there yet", "lbctl metrics");
  command->callback([&action] { action = []() -> int { throw usage_error("not there yet"); }; });
}

}  // namespace lbctl
