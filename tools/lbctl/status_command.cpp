#include <CLI/CLI.hpp>

#include "lbctl/command.h"

namespace lbctl {

void add_status_command(CLI::App& program, Action& action) {
  CLI::App* const command = add_command(program, "status", "not there yet", "lbctl status");
  command->callback([&action] { action = []() -> int { throw usage_error("not there yet"); }; });
}

}  // namespace lbctl
