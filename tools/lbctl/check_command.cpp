#include <CLI/CLI.hpp>

#include "lbctl/command.h"

namespace lbctl {

void add_check_command(CLI::App& program, Action& action) {
  CLI::App* const command = add_command(program, "check", "not there yet", "lbctl check");
  command->callback([&action] { action = []() -> int { throw usage_error("not there yet"); }; });
}

}  // namespace lbctl
