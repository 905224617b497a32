// The command line: what is refused, where it is said, and the exit statuses that scripts rely on.
#include <gtest/gtest.h>

#include <sstream>
#include <string>

#include "lbctl/run_command.h"

namespace lbctl {
namespace {

TEST(Command, UnknownOptionGetsAUsageLineOnStandardError) {
  const Outcome outcome = run_command({"status", "--nonsense"});
  EXPECT_EQ(outcome.status, kExitUsage);
  EXPECT_EQ(outcome.output, "");
  EXPECT_NE(outcome.complaint.find("--nonsense"), std::string::npos) << outcome.complaint;
  EXPECT_NE(outcome.complaint.find("usage: lbctl status "), std::string::npos) << outcome.complaint;
}

TEST(Command, UnknownSubcommandGetsAUsageLine) {
  const Outcome outcome = run_command({"stauts"});
  EXPECT_EQ(outcome.status, kExitUsage);
  EXPECT_NE(outcome.complaint.find("no subcommand or option 'stauts'"), std::string::npos)
      << outcome.complaint;
  EXPECT_NE(outcome.complaint.find("usage: lbctl SUBCOMMAND"), std::string::npos)
      << outcome.complaint;
}

TEST(Command, NoSubcommandIsAUsageError) {
  const Outcome outcome = run_command({});
  EXPECT_EQ(outcome.status, kExitUsage);
  EXPECT_EQ(outcome.output, "");
}

TEST(Command, VersionIsTheProjects) {
  const Outcome outcome = run_command({"--version"});
  EXPECT_EQ(outcome.status, kExitOk);
  EXPECT_EQ(outcome.output, "lbctl " LB_VERSION "\n");
}

TEST(Command, HelpOfEachSubcommandShowsOneExample) {
  for (const char* name : {"status", "check", "routes", "explain", "simulate", "record", "history",
                           "metrics", "watch"}) {
    const Outcome outcome = run_command({name, "--help"});
    EXPECT_EQ(outcome.status, kExitOk) << name;
    EXPECT_NE(outcome.output.find("Example:\n  lbctl " + std::string(name)), std::string::npos)
        << outcome.output;
  }
}

TEST(Command, HelpFitsATerminal) {
  for (const char* name : {"", "status", "check", "routes", "explain", "simulate", "record",
                           "history", "metrics", "watch"}) {
    const Outcome outcome = *name == '\0' ? run_command({"--help"}) : run_command({name, "--help"});
    std::istringstream lines(outcome.output);
    for (std::string line; std::getline(lines, line);) EXPECT_LE(line.size(), 80U) << line;
  }
}

TEST(Command, SubcommandsAreListedWithOneSentence) {
  const Outcome outcome = run_command({"--help"});
  EXPECT_NE(outcome.output.find(
                "  check                       Tells what is wrong with a configuration, also\n"
                "                              what the daemon passes over in silence.\n"
                "  routes "),
            std::string::npos)
      << outcome.output;
}

}  // namespace
}  // namespace lbctl
