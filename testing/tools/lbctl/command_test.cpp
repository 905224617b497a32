// The command line: what is refused, where it is said, and the exit statuses that scripts rely on.
#include "lbctl/command.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace lbctl {
namespace {

struct Outcome {
  int status;
  std::string output;
  std::string complaint;
};

Outcome run(std::vector<const char*> arguments) {
  arguments.insert(arguments.begin(), "lbctl");
  testing::internal::CaptureStdout();
  testing::internal::CaptureStderr();
  const int status = run_lbctl(static_cast<int>(arguments.size()), arguments.data());
  return {status, testing::internal::GetCapturedStdout(), testing::internal::GetCapturedStderr()};
}

TEST(Command, UnknownOptionGetsAUsageLineOnStandardError) {
  const Outcome outcome = run({"status", "--nonsense"});
  EXPECT_EQ(outcome.status, kExitUsage);
  EXPECT_EQ(outcome.output, "");
  EXPECT_NE(outcome.complaint.find("--nonsense"), std::string::npos) << outcome.complaint;
  EXPECT_NE(outcome.complaint.find("usage: lbctl status "), std::string::npos) << outcome.complaint;
}

TEST(Command, UnknownSubcommandGetsAUsageLine) {
  const Outcome outcome = run({"stauts"});
  EXPECT_EQ(outcome.status, kExitUsage);
  EXPECT_NE(outcome.complaint.find("no subcommand or option 'stauts'"), std::string::npos)
      << outcome.complaint;
  EXPECT_NE(outcome.complaint.find("usage: lbctl SUBCOMMAND"), std::string::npos)
      << outcome.complaint;
}

TEST(Command, NoSubcommandIsAUsageError) {
  const Outcome outcome = run({});
  EXPECT_EQ(outcome.status, kExitUsage);
  EXPECT_EQ(outcome.output, "");
}

TEST(Command, VersionIsTheProjects) {
  const Outcome outcome = run({"--version"});
  EXPECT_EQ(outcome.status, kExitOk);
  EXPECT_EQ(outcome.output, "lbctl " LB_VERSION "\n");
}

TEST(Command, HelpOfEachSubcommandShowsOneExample) {
  for (const char* name : {"status", "check", "routes", "explain", "simulate", "record", "history",
                           "metrics", "watch"}) {
    const Outcome outcome = run({name, "--help"});
    EXPECT_EQ(outcome.status, kExitOk) << name;
    EXPECT_NE(outcome.output.find("Example:\n  lbctl " + std::string(name)), std::string::npos)
        << outcome.output;
  }
}

}  // namespace
}  // namespace lbctl
