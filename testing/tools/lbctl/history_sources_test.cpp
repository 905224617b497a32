// What is said of logs and journals that cannot be read, or not be believed.
#include "lbctl/history_sources.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <ctime>
#include <filesystem>
#include <iostream>
#include <string>
#include <vector>

#include "lbctl/command.h"
#include "support/temporary_directory.h"

namespace lbctl {
namespace {

// What reading the journal ends with.
std::string complaint_of(const std::string& directory) {
  try {
    read_journal(directory, 1'800'000'000);
  } catch (const Failure& failure) {
    EXPECT_EQ(failure.exit_status(), kExitUnreadable);
    return failure.what();
  }
  return "";
}

class HistorySourcesTest : public TemporaryDirectoryTest {};

TEST_F(HistorySourcesTest, ADirectoryWithoutJournalFilesIsNamed) {
  EXPECT_EQ(
      complaint_of(directory_.path()),
      directory_.path() + ": there are no journal files; --log FILE reads a log file instead");
}

TEST_F(HistorySourcesTest, FilesThatAreNoJournalAreNamed) {
  const std::string name = "0123456789abcdef0123456789abcdef/system.journal";
  const std::string cut = directory_.write(name, "LPKSHHRH");
  EXPECT_NE(complaint_of(directory_.path()).find(cut + ": no journal file, or a damaged one"),
            std::string::npos)
      << complaint_of(directory_.path());
  directory_.write(name, std::string(10'000, 'x'));
  EXPECT_NE(complaint_of(directory_.path()).find(cut), std::string::npos);
}

TEST_F(HistorySourcesTest, ALineFromTheFutureIsPassedOver) {
  const std::string message =
      " router wan_lb[7]: %WAN-I-INSTANCE: IP interface wan1 changed state to ";
  const std::string log = directory_.write(
      "lb.log", "2026-01-01T00:00:00Z" + message + "inactive\n" + "2038-01-01T00:00:00Z" + message +
                    "active\n" + "2026-01-01T00:01:00Z" + message + "active\n" +
                    "2026-01-01T00:00:30Z" + message + "inactive\n");
  constexpr std::time_t kStart = 1'767'225'600;  // the first line's
  std::vector<StateChange> changes;
  testing::internal::CaptureStderr();
  read_log_file(log, kStart + 60, changes);
  EXPECT_EQ(testing::internal::GetCapturedStderr(),
            "lbctl: " + log + ": 1 state change passed over, stamped later than now\n");
  ASSERT_EQ(changes.size(), 3U);
  EXPECT_EQ(changes[0].time, kStart * 1'000'000);
  EXPECT_EQ(changes[1].time, (kStart + 60) * 1'000'000);
  EXPECT_TRUE(changes[1].active);
  // A clock that was set back still counts from the line above.
  EXPECT_EQ(changes[2].time, (kStart + 60) * 1'000'000);
}

// Root may read all: another user tells what happens, in a process of its own.
void read_as_nobody(const std::string& directory) {
  constexpr uid_t kNobody = 65534;
  if (geteuid() == 0 && setresuid(kNobody, kNobody, kNobody) != 0) _exit(99);
  const std::string complaint = complaint_of(directory);
  std::cerr << complaint;
  _exit(complaint.empty() ? 0 : kExitUnreadable);
}

TEST_F(HistorySourcesTest, WhoMayReadIsSaidToWhomMayNot) {
  namespace fs = std::filesystem;
  fs::permissions(directory_.path(), fs::perms{0755});
  const std::string file = directory_.write("system.journal", "LPKSHHRH");
  fs::permissions(file, fs::perms::none);
  EXPECT_EXIT(read_as_nobody(directory_.path()), testing::ExitedWithCode(kExitUnreadable),
              "system.journal: Permission denied.*groups adm and systemd-journal");
  const std::string folder = directory_.file("0123456789abcdef0123456789abcdef");
  fs::remove(file);
  fs::create_directory(folder);
  fs::permissions(folder, fs::perms::none);
  EXPECT_EXIT(read_as_nobody(directory_.path()), testing::ExitedWithCode(kExitUnreadable),
              "abcdef: Permission denied.*groups adm and systemd-journal");
  fs::permissions(folder, fs::perms::owner_all);
}

}  // namespace
}  // namespace lbctl
