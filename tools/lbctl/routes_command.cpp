#include <CLI/CLI.hpp>

#include "lbctl/command.h"

namespace lbctl {

void add_routes_command(CLI::App& program, Action& action) {
  CLI::App* const command = add_command(program, "routes", "not there yet", "lbctl routes");
  command->callback([&action] { action = []() -> int { throw usage_error("not there yet"); }; });
}

}  // namespace lbctl
