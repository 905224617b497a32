#include "lbctl/command.h"

#include <unistd.h>

#include <cstdio>
#include <exception>
#include <string>

#include <fmt/format.h>
#include <CLI/CLI.hpp>

#include "lbctl/print.h"

namespace lbctl {

const char* const kDefaultOutputDirectory = "/var/run/load-balance";

namespace {

// Of the subcommand that was given, else of the program.
std::string usage_line(const CLI::App& program) {
  std::string command = program.get_name();
  for (const CLI::App* chosen : program.get_subcommands()) command += " " + chosen->get_name();
  return fmt::format("usage: {} {}; see {} --help", command,
                     program.get_subcommands().empty() ? "SUBCOMMAND ..." : "[OPTION...] ...",
                     command);
}

// What was printed must have arrived, or a script would take half a document for a whole one.
int finish(int status) {
  if (std::fflush(stdout) == 0 && std::ferror(stdout) == 0) return status;
  complain("standard output cannot be written");
  return kExitUnreadable;
}

}  // namespace

CLI::App* add_command(CLI::App& program, const std::string& name, const std::string& description,
                      const std::string& example) {
  CLI::App* const command = program.add_subcommand(name, description);
  command->footer("Example:\n  " + example);
  return command;
}

int run_lbctl(int argc, const char* const* argv) {
  CLI::App program("Shows, checks, explains and tries out what the WAN load balancer does.",
                   "lbctl");
  program.set_version_flag("--version", "lbctl " LB_VERSION);
  program.require_subcommand(1);
  program.footer("Example:\n  lbctl status");
  Action action;
  add_status_command(program, action);
  add_check_command(program, action);
  add_routes_command(program, action);
  add_explain_command(program, action);
  add_simulate_command(program, action);
  add_record_command(program, action);
  add_history_command(program, action);
  add_metrics_command(program, action);
  add_watch_command(program, action);
  try {
    program.parse(argc, argv);
    return finish(action());
  } catch (const CLI::Success& wanted) {  // --help, --version
    return finish(program.exit(wanted));
  } catch (const CLI::ParseError& error) {
    const bool is_unknown = program.get_subcommands().empty() && argc > 1;
    complain(is_unknown ? fmt::format("there is no subcommand or option '{}'", argv[1])
                        : error.what());
    std::fprintf(stderr, "%s\n", usage_line(program).c_str());
    return kExitUsage;
  } catch (const Failure& failure) {
    std::fflush(stdout);
    complain(failure.what());
    return failure.exit_status();
  } catch (const std::exception& error) {
    std::fflush(stdout);
    complain(error.what());
    return kExitUnreadable;
  }
}

}  // namespace lbctl
