#include "routing/routing_daemon.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <csignal>

#include "platform/descriptor_limit.h"
#include "support/fifo.h"
#include "support/routing_fixture.h"

using testing::ElementsAre;
using testing::IsEmpty;
using testing::Pair;

namespace {

class RoutingDaemonTest : public RoutingFixture {
 protected:
  const RoutingDaemon daemon_{"default", false};
};

}  // namespace

TEST(RoutingDaemonPidTextTest, IsTheNumberAtTheStart) {
  EXPECT_EQ(parse_routing_pid("815"), 815);
  EXPECT_EQ(parse_routing_pid(" \t\n\v\f\r+815x"), 815);
  EXPECT_EQ(parse_routing_pid("0000000000000000000000815 4711"), 815);
  EXPECT_EQ(parse_routing_pid(std::string("81\0005", 4)), 81);  // a C string ends at a NUL byte
  EXPECT_EQ(parse_routing_pid("0x10"), std::nullopt);
}

TEST(RoutingDaemonPidTextTest, IsPositiveAndFitsInAProcessId) {
  EXPECT_EQ(parse_routing_pid("1"), 1);
  EXPECT_EQ(parse_routing_pid("2147483647"), 2147483647);
  for (const char* text : {"2147483648", "4294967297", "9223372036854775807", "9223372036854775808",
                           "99999999999999999999", "0", "+0", "-0", "-1", "-815",
                           "-9223372036854775809", "-4294967295"}) {
    EXPECT_EQ(parse_routing_pid(text), std::nullopt) << text;
  }
}

TEST(RoutingDaemonPidTextTest, IsNotFoundBehindOtherText) {
  for (const char* text :
       {"", " ", "\n ", "+", "-", "+ 815", "+-815", "--815", "pid 815", "x815", "\240815"}) {
    EXPECT_EQ(parse_routing_pid(text), std::nullopt) << text;
  }
}

TEST_F(RoutingDaemonTest, FileIsReplaced) {
  daemon_.write_file("long text");
  daemon_.write_file("short");
  EXPECT_EQ(directory_.read(route_file_), "short");
  daemon_.write_file("");
  EXPECT_TRUE(directory_.exists(route_file_));
  EXPECT_EQ(directory_.read(route_file_), "");
}

TEST_F(RoutingDaemonTest, FileThatCannotBeWrittenIsReported) {
  directory_.write(route_file_, "old");
  const Fault fault("pwrite", EIO);
  daemon_.write_file("text");
  EXPECT_THAT(log_records(), ElementsAre(LoggedWarning("wan_lb: error writing file '" +
                                                       route_file_ + "', errno = 5")));
  EXPECT_EQ(directory_.read(route_file_), "old");
}

TEST_F(RoutingDaemonTest, FifoInTheFilesPlaceIsReportedAndLeftAlone) {
  const Fifo fifo(route_file_);
  fifo.must_not_hold_up([this] { daemon_.write_file("text"); });
  EXPECT_THAT(log_records(), ElementsAre(LoggedWarning("wan_lb: error writing file '" +
                                                       route_file_ + "', errno = 22")));
  EXPECT_TRUE(std::filesystem::is_fifo(route_file_));
}

TEST_F(RoutingDaemonTest, PlaceWithoutAFileIsSilent) {
  std::filesystem::create_directories(route_file_);
  daemon_.write_file("text");
  std::filesystem::remove_all(route_directory_);
  daemon_.write_file("text");
  EXPECT_THAT(log_records(), IsEmpty());
}

TEST_F(RoutingDaemonTest, MissingPidFileIsADebugMessageAndNoFlush) {
  std::filesystem::remove(pid_file_);
  daemon_.reload();
  EXPECT_THAT(kills_, IsEmpty());
  EXPECT_THAT(commands_, ElementsAre(Pair(pid_command() + " 2>/dev/null", "r")));
  EXPECT_THAT(log_records(),
              ElementsAre(LoggedDebug("LBDecision::run() can't execute '" + pid_command() + "'")));
}

TEST_F(RoutingDaemonTest, EmptyPidFileIsADebugMessageToo) {
  use_pid_file("");
  daemon_.reload();
  EXPECT_THAT(kills_, IsEmpty());
  EXPECT_EQ(commands_.size(), 1u);
  EXPECT_THAT(log_records(),
              ElementsAre(LoggedDebug("LBDecision::run() can't execute '" + pid_command() + "'")));
}

TEST_F(RoutingDaemonTest, FifoInThePidFilesPlaceIsReportedAndLeftAlone) {
  std::filesystem::remove(pid_file_);
  const Fifo fifo(pid_file_);
  fifo.must_not_hold_up([this] { daemon_.reload(); });
  EXPECT_THAT(log_records(),
              ElementsAre(LoggedWarning("wan_lb: pid file '" + pid_file_ +
                                        "' is no regular file, routing daemon not signalled")));
  EXPECT_THAT(kills_, IsEmpty());
  EXPECT_THAT(commands_, IsEmpty());
}

TEST_F(RoutingDaemonTest, DeviceInThePidFilesPlaceToo) {
  std::filesystem::remove(pid_file_);
  std::filesystem::create_symlink("/dev/zero", pid_file_);
  daemon_.reload();
  EXPECT_THAT(log_records(),
              ElementsAre(LoggedWarning("wan_lb: pid file '" + pid_file_ +
                                        "' is no regular file, routing daemon not signalled")));
  EXPECT_THAT(kills_, IsEmpty());
  EXPECT_THAT(commands_, IsEmpty());
}

TEST_F(RoutingDaemonTest, LongPidFileCountsFromItsStart) {
  use_pid_file(std::string(10000, ' ') + "815\n" + std::string(1 << 20, 'x'));
  daemon_.reload();
  EXPECT_THAT(kills_, ElementsAre(Pair(815, SIGHUP)));
}

TEST_F(RoutingDaemonTest, DebugMessageIsBehindItsFlag) {
  set_log_flag(3, false);
  use_pid_file("");
  daemon_.reload();
  EXPECT_THAT(log_records(), IsEmpty());
}

TEST_F(RoutingDaemonTest, CommandThatCannotBeStartedReadsNothing) {
  const Fault fault("popen", EMFILE);
  daemon_.reload();
  EXPECT_THAT(kills_, IsEmpty());
  EXPECT_EQ(call_count("popen"), 1);
  EXPECT_EQ(call_count("pclose"), 0);
  EXPECT_THAT(log_records(),
              ElementsAre(LoggedDebug("LBDecision::run() can't execute '" + pid_command() + "'")));
}

TEST_F(RoutingDaemonTest, FlushThatCannotBeStartedIsNotReported) {
  const Fault fault("popen", EMFILE, /*skip=*/1);
  daemon_.reload();
  EXPECT_EQ(kills_.size(), 1u);
  EXPECT_THAT(log_records(), IsEmpty());
}

TEST_F(RoutingDaemonTest, RefusedSignalIsAWarning) {
  const Fault fault("kill", ESRCH);
  daemon_.reload();
  EXPECT_THAT(log_records(), ElementsAre(LoggedWarning("wan_lb: can't send SIGHUP to the routing "
                                                       "daemon (pid 4711), errno = 3")));
  EXPECT_EQ(commands_.size(), 2u);  // the flush follows all the same
}

// --- the descriptor limit of the commands ---

TEST_F(RoutingDaemonTest, CommandsHaveTheLimitThatTheDaemonWasStartedWith) {
  initial_descriptor_limit_command() = "ulimit -Sn 123; ";
  std::string seen;
  CallHook hook(wrapped::popen, [&](const char* command, const char* mode) {
    commands_.emplace_back(command, mode);
    return wrapped::popen.real((std::string(command) + "; ulimit -Sn").c_str(), "r");
  });
  CallHook close_hook(wrapped::pclose, [&](FILE* pipe) {
    char line[16] = {};
    while (fgets(line, sizeof(line), pipe) != nullptr) seen += line;
    return wrapped::pclose.real(pipe);
  });
  daemon_.reload();
  initial_descriptor_limit_command().clear();
  EXPECT_THAT(commands_,
              ElementsAre(Pair("ulimit -Sn 123; " + pid_command() + " 2>/dev/null", "r"),
                          Pair("ulimit -Sn 123; ip route flush cache 2>/dev/null", "w")));
  EXPECT_THAT(kills_, ElementsAre(Pair(4711, SIGHUP)));
}

struct PidCase {
  std::string content;
  pid_t pid;  // 0: refused
};

class RoutingDaemonPidTest : public RoutingDaemonTest,
                             public testing::WithParamInterface<PidCase> {};

TEST_P(RoutingDaemonPidTest, IsReadAsANumber) {
  use_pid_file(GetParam().content);
  daemon_.reload();
  if (GetParam().pid != 0) {
    EXPECT_THAT(kills_, ElementsAre(Pair(GetParam().pid, SIGHUP)));
    EXPECT_THAT(log_records(), IsEmpty());
  } else {
    EXPECT_THAT(kills_, IsEmpty());
    EXPECT_THAT(log_records(),
                ElementsAre(LoggedError("wan_lb: '" + pid_command() +
                                        "' gives no process id, routing daemon not signalled")));
  }
  EXPECT_EQ(commands_.size(), 2u);  // the file was not empty: the cache is flushed
}

INSTANTIATE_TEST_SUITE_P(
    Contents, RoutingDaemonPidTest,
    testing::Values(PidCase{"815", 815}, PidCase{"  815\n", 815}, PidCase{"+815\n", 815},
                    PidCase{"815 4711\n", 815}, PidCase{"815x\n", 815}, PidCase{"\n815\n", 815},
                    PidCase{"815\n4711\n", 815}, PidCase{"2147483647\n", 2147483647},
                    PidCase{"\n", 0}, PidCase{"none\n", 0}, PidCase{"0\n", 0}, PidCase{"-1\n", 0},
                    PidCase{"-815\n", 0}, PidCase{"2147483648\n", 0}, PidCase{"4294967297\n", 0},
                    PidCase{"99999999999999999999\n", 0}));
