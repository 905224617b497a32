#include <CLI/CLI.hpp>

#include "lbctl/command.h"

namespace lbctl {

void add_explain_command(CLI::App& program, Action& action) {
  CLI::App* const command = add_command(program, "explain", "not there yet", "lbctl explain");
  command->callback([&action] { action = []() -> int { throw usage_error("not there yet"); }; });
}

}  // namespace lbctl
