#include "lbctl/command_line.h"

#include <unistd.h>

#include <cstdio>
#include <exception>
#include <string>
#include <utility>
#include <vector>

#include <fmt/format.h>
#include <CLI/CLI.hpp>

#include "lbctl/command.h"
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

Option Option::required() const {
  option_->required();
  return *this;
}

Option Option::shows_default() const {
  option_->capture_default_str();
  return *this;
}

Option Option::value_name(const std::string& name) const {
  option_->type_name(name);
  return *this;
}

Option Option::one_value() const {
  option_->allow_extra_args(false);
  return *this;
}

Option Option::comma_separated() const {
  option_->delimiter(',');
  return *this;
}

Option Option::range(int least, int most) const {
  option_->check(CLI::Range(least, most));
  return *this;
}

Option Option::excludes(std::initializer_list<Option> others) const {
  for (const Option& other : others) option_->excludes(other.option_);
  return *this;
}

CommandLine::CommandLine(CLI::App& program, const std::string& name, const std::string& description,
                         const std::string& example)
    : command_(program.add_subcommand(name, description)) {
  command_->footer("Example:\n  " + example);
}

Option CommandLine::flag(const std::string& name, bool& is_given, const std::string& help) const {
  return Option(command_->add_flag(name, is_given, help));
}

Option CommandLine::value(const std::string& name, std::string& text,
                          const std::string& help) const {
  return Option(command_->add_option(name, text, help));
}

Option CommandLine::value(const std::string& name, int& number, const std::string& help) const {
  return Option(command_->add_option(name, number, help));
}

Option CommandLine::values(const std::string& name, std::vector<std::string>& texts,
                           const std::string& help) const {
  return Option(command_->add_option(name, texts, help));
}

void CommandLine::runs(Action& action, Action run) const {
  command_->callback([&action, run = std::move(run)] { action = run; });
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
