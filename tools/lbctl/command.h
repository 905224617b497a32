// What the subcommands of lbctl have in common: how they join the command line and how they end.
//
// A subcommand is one file, NAME_command.cpp, with the function add_NAME_command() that is declared
// below. The function adds the subcommand with its options to the command line and says what runs
// when it was chosen:
//
//   void add_status_command(CLI::App& program, Action& action) {
//     const auto options = std::make_shared<StatusOptions>();
//     const CommandLine command(program, "status", "what it is for", "lbctl status -4");
//     command.value("-o", options->directory, "...").shows_default();
//     command.runs(action, [options] { return run_status(*options); });
//   }
//
// What it does is in files of their own, which know nothing of the command line. Results go to
// standard output, complaints to standard error (complain()).
#pragma once

#include <stdexcept>
#include <string>

#include "lbctl/command_line.h"

namespace lbctl {

// Exit statuses. A subcommand that answers a question says no with 1.
inline constexpr int kExitOk = 0;
inline constexpr int kExitNo = 1;
inline constexpr int kExitUsage = 2;       // also for a name that nothing has
inline constexpr int kExitUnreadable = 3;  // a file, or what is in it

// The directory that the daemon's option -o has by default.
extern const char* const kDefaultOutputDirectory;

// Ends the subcommand with a complaint, one line without the program's name.
class Failure : public std::runtime_error {
 public:
  Failure(int exit_status, const std::string& complaint)
      : std::runtime_error(complaint), exit_status_(exit_status) {}
  int exit_status() const { return exit_status_; }

 private:
  int exit_status_;
};

// For what cannot be read: status 3. For what was asked wrongly: status 2.
inline Failure unreadable(const std::string& complaint) { return {kExitUnreadable, complaint}; }
inline Failure usage_error(const std::string& complaint) { return {kExitUsage, complaint}; }

// Each in the file NAME_command.cpp.
void add_status_command(CLI::App& program, Action& action);
void add_check_command(CLI::App& program, Action& action);
void add_routes_command(CLI::App& program, Action& action);
void add_simulate_command(CLI::App& program, Action& action);
void add_record_command(CLI::App& program, Action& action);
void add_explain_command(CLI::App& program, Action& action);
void add_metrics_command(CLI::App& program, Action& action);
void add_history_command(CLI::App& program, Action& action);
void add_watch_command(CLI::App& program, Action& action);

}  // namespace lbctl
