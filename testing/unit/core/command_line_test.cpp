#include "core/command_line.h"

#include <getopt.h>
#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace {

CommandLine parse(std::vector<std::string> arguments) {
  arguments.insert(arguments.begin(), "lb");
  std::vector<char*> argv;
  for (std::string& argument : arguments) argv.push_back(argument.data());
  argv.push_back(nullptr);
  optind = 0;  // getopt starts anew
  opterr = 0;
  return parse_command_line(static_cast<int>(arguments.size()), argv.data());
}

}  // namespace

TEST(CommandLineTest, Defaults) {
  const CommandLine line = parse({});
  EXPECT_EQ(line.config_path, "");
  EXPECT_EQ(line.pid_path, "");
  EXPECT_EQ(line.output_directory, "/var/run/load-balance");
  EXPECT_FALSE(line.load_only);
  EXPECT_FALSE(line.daemonise);
  EXPECT_FALSE(line.show_usage);
}

TEST(CommandLineTest, EveryOption) {
  const CommandLine line = parse({"-f", "/a", "-t", "-i", "/b", "-o", "/c", "-d", "-v"});
  EXPECT_EQ(line.config_path, "/a");
  EXPECT_EQ(line.pid_path, "/b");
  EXPECT_EQ(line.output_directory, "/c");
  EXPECT_TRUE(line.load_only);
  EXPECT_TRUE(line.daemonise);
  EXPECT_FALSE(line.show_usage);
}

TEST(CommandLineTest, OptionsMayBeGlued) {
  const CommandLine line = parse({"-tdf/a"});
  EXPECT_TRUE(line.load_only);
  EXPECT_TRUE(line.daemonise);
  EXPECT_EQ(line.config_path, "/a");
}

TEST(CommandLineTest, VIsIgnored) {
  const CommandLine line = parse({"-v", "-f", "/a"});
  EXPECT_EQ(line.config_path, "/a");
  EXPECT_FALSE(line.show_usage);
}

TEST(CommandLineTest, LastOccurrenceWins) {
  const CommandLine line =
      parse({"-f", "/1", "-i", "/2", "-o", "/3", "-f", "/4", "-i", "/5", "-o", "/6"});
  EXPECT_EQ(line.config_path, "/4");
  EXPECT_EQ(line.pid_path, "/5");
  EXPECT_EQ(line.output_directory, "/6");
  EXPECT_EQ(parse({"-f", "/1", "-f", ""}).config_path, "");
}

TEST(CommandLineTest, HelpUnknownOptionAndMissingArgumentAskForTheUsage) {
  for (const char* option : {"-h", "-x", "-f", "-i", "-o", "-T", "--help"}) {
    EXPECT_TRUE(parse({option}).show_usage) << option;
    EXPECT_TRUE(parse({"-f", "/a", "-t", option}).show_usage) << option;
  }
}

TEST(CommandLineTest, UsageText) {
  EXPECT_STREQ(kUsage,
               "lb -ftviodh\n"
               "  -f [file] configuration file\n"
               "  -t load configuration file only and exit\n"
               "  -i specify location of pid directory\n"
               "  -o specify location of output directory\n"
               "  -d run as daemon\n"
               "  -h help\n");
}
