// The command line of one subcommand: its options, and what runs when it was chosen.
//
// CLI11 reads the command line, and command_line.cpp alone knows it: its header takes longer to
// compile than any subcommand.
#pragma once

#include <functional>
#include <initializer_list>
#include <string>
#include <vector>

namespace CLI {
class App;
class Option;
}  // namespace CLI

namespace lbctl {

// What the chosen subcommand does; the exit status.
using Action = std::function<int()>;

// Of one option or argument; owned by the command line.
class Option {
 public:
  explicit Option(CLI::Option* option) : option_(option) {}

  Option required() const;
  // Help shows the value that the variable has now.
  Option shows_default() const;
  // The word for the value in help ("DIR").
  Option value_name(const std::string& name) const;
  // Takes one value each time it is given, and leaves the next word to others.
  Option one_value() const;
  // Values are also parted by commas.
  Option comma_separated() const;
  Option range(int least, int most) const;
  // Cannot be given beside any of these.
  Option excludes(std::initializer_list<Option> others) const;

 private:
  CLI::Option* option_;
};

// The variables are set when the command line has been read; they live as long as the Action.
class CommandLine {
 public:
  // A subcommand of `program`, whose help ends with `example`.
  CommandLine(CLI::App& program, const std::string& name, const std::string& description,
              const std::string& example);

  Option flag(const std::string& name, bool& is_given, const std::string& help) const;
  // With a value; a name without a dash is an argument by its place.
  Option value(const std::string& name, std::string& text, const std::string& help) const;
  Option value(const std::string& name, int& number, const std::string& help) const;
  Option values(const std::string& name, std::vector<std::string>& texts,
                const std::string& help) const;

  // When this subcommand is chosen, `action` becomes `run`.
  void runs(Action& action, Action run) const;

 private:
  CLI::App* command_;
};

// Runs lbctl: reads the command line and calls the chosen subcommand. The exit status.
int run_lbctl(int argc, const char* const* argv);

}  // namespace lbctl
