#include <CLI/CLI.hpp>

#include "lbctl/command.h"

namespace lbctl {

void add_history_command(CLI::App& program, Action& action) {
  CLI::App* const command = add_command(program, "history", "not there yet", "lbctl history");
  command->callback([&action] { action = []() -> int { throw usage_error("not there yet"); }; });
}

}  // namespace lbctl
