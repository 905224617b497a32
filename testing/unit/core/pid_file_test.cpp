#include "core/pid_file.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include "support/fifo.h"
#include "support/recorded_log.h"
#include "support/temporary_directory.h"

using testing::ElementsAre;
using testing::IsEmpty;

namespace {

class PidFileTest : public TemporaryDirectoryTest {
 protected:
  void SetUp() override { mask_ = umask(0027); }
  void TearDown() override { umask(mask_); }

  // The mask in force.
  static mode_t mask() {
    const mode_t mask = umask(0);
    umask(mask);
    return mask;
  }
  static std::string pid_text() { return std::to_string(getpid()) + "\n"; }

 private:
  mode_t mask_ = 0;
};

}  // namespace

TEST_F(PidFileTest, HoldsThePidAndANewline) {
  write_pid_file(directory_.file("lb.pid"));
  EXPECT_EQ(directory_.read("lb.pid"), pid_text());
  EXPECT_THAT(log_records(), IsEmpty());
}

TEST_F(PidFileTest, HasAModeOfItsOwnWhateverTheMask) {
  for (const mode_t mask : {0000u, 0077u}) {
    umask(mask);
    const std::string name = "lb" + std::to_string(mask);
    write_pid_file(directory_.file(name));
    struct stat status {};
    ASSERT_EQ(stat(directory_.file(name).c_str(), &status), 0);
    EXPECT_EQ(status.st_mode & 07777u, 0644u);
    EXPECT_EQ(PidFileTest::mask(), mask);
  }
}

TEST_F(PidFileTest, ReplacesAnOldOne) {
  directory_.write("lb.pid", "1234567890\nand more\n");
  write_pid_file(directory_.file("lb.pid"));
  EXPECT_EQ(directory_.read("lb.pid"), pid_text());
}

TEST_F(PidFileTest, ThatCannotBeOpenedIsLogged) {
  write_pid_file(directory_.path());  // a directory
  EXPECT_THAT(log_records(), ElementsAre(LoggedError("Can't fopen pid lock file " +
                                                     directory_.path() + ", continuing")));
  EXPECT_EQ(mask(), 0027u);
}

TEST_F(PidFileTest, FifoInItsPlaceIsNotWaitedFor) {
  const std::string path = directory_.file("lb.pid");
  const Fifo fifo(path);
  fifo.must_not_hold_up([&] { write_pid_file(path); });
  EXPECT_THAT(log_records(),
              ElementsAre(LoggedError("Can't fopen pid lock file " + path + ", continuing")));
  EXPECT_EQ(mask(), 0027u);
}

TEST_F(PidFileTest, MessageIsBehindItsFlag) {
  set_log_flag(1, false);
  write_pid_file(directory_.path());
  EXPECT_THAT(log_records(), IsEmpty());
}
