#include "lbctl/command_line.h"

#include <unistd.h>

#include <cstdio>
#include <exception>
#include <memory>
#include <sstream>
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

constexpr size_t kHelpWidth = 80;

// Words in lines of that width at most, all but the first one indented.
std::string wrapped(const std::string& text, size_t indent) {
  std::string result;
  size_t column = indent;
  std::istringstream words(text);
  for (std::string word; words >> word;) {
    if (!result.empty() && column + 1 + word.size() > kHelpWidth) {
      result += "\n" + std::string(indent, ' ');
      column = indent;
    } else if (!result.empty()) {
      result += ' ';
      ++column;
    }
    result += word;
    column += word.size();
  }
  return result;
}

// CLI11 breaks no line itself, and lists subcommands with all that their own help says.
class HelpText : public CLI::Formatter {
 public:
  std::string make_description(const CLI::App* command) const override {
    return wrapped(command->get_description(), 0) + "\n";
  }
  std::string make_subcommand(const CLI::App* command) const override {
    const std::string text = command->get_description();
    const size_t stop = text.find(". ");  // the first sentence ends there
    return row(command->get_name(), stop == std::string::npos ? text : text.substr(0, stop + 1));
  }
  std::string make_option(const CLI::Option* option, bool is_positional) const override {
    return row(make_option_name(option, is_positional) + make_option_opts(option),
               make_option_desc(option));
  }

 private:
  std::string row(const std::string& name, const std::string& text) const {
    const size_t indent = get_column_width();
    const bool fits = name.size() + 3 < indent;
    const std::string gap =
        fits ? std::string(indent - 2 - name.size(), ' ') : "\n" + std::string(indent, ' ');
    return fmt::format("  {}{}{}\n", name, gap, wrapped(text, indent));
  }
};

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
  program.formatter(std::make_shared<HelpText>());
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
