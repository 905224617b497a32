#include <CLI/CLI.hpp>

#include "lbctl/command.h"

namespace lbctl {

void add_record_command(CLI::App& program, Action& action) {
  CLI::App* const command = add_command(program, "record", "not there yet", "lbctl record");
  command->callback([&action] { action = []() -> int { throw usage_error("not there yet"); }; });
}

}  // namespace lbctl
