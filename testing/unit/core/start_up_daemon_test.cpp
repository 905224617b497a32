// The option to run as a daemon.
#include <sys/stat.h>

#include <climits>

#include "support/start_up_fixture.h"

using testing::EndsWith;
using testing::ExitedWithCode;
using testing::HasSubstr;
using testing::Not;

namespace {

pid_t group_before = -1;

class StartUpDaemonDeathTest : public StartUpFixture {};

}  // namespace

TEST_F(StartUpDaemonDeathTest, ParentNamesItsChildToTheWatchdogAndIsDone) {
  EXPECT_EXIT(
      {
        CallHook hook(wrapped::fork, [] { return 4711; });
        start({"-d", "-f", "/nonexistent", "-i", directory_.file("lb.pid")});
      },
      ExitedWithCode(0),
      testing::Eq(std::string(kCrashReport) + "send_signal_live 4711 1\nthreads 0\nend\n"));
}

TEST_F(StartUpDaemonDeathTest, ChildGoesOnWithoutATerminal) {
  EXPECT_EXIT(
      {
        CallHook hook(wrapped::fork, [] { return 0; });
        atexit([] {
          for (const int fd : {0, 1, 2}) {
            char target[64] = {};
            const std::string link = "/proc/self/fd/" + std::to_string(fd);
            if (readlink(link.c_str(), target, sizeof(target) - 1) < 0) target[0] = '-';
            dprintf(report_fd, "%d %s\n", fd, target);
          }
          // Nothing else is detached.
          const bool same_group = getpgrp() == group_before;
          char directory[PATH_MAX] = {};
          const bool same_directory =
              getcwd(directory, sizeof(directory)) == directory && std::string(directory) == "/usr";
          dprintf(report_fd, "group %d directory %d mask %o\n", same_group, same_directory,
                  umask(0));
        });
        group_before = getpgrp();
        if (chdir("/usr") != 0) abort();
        umask(0026);
        start({"-d", "-t", "-f", "/nonexistent"});
      },
      ExitedWithCode(0),
      EndsWith("configuration file not found: /nonexistent\nthreads 0\nend\n"
               "0 /dev/null\n1 /dev/null\n2 /dev/null\n"
               "group 1 directory 1 mask 26\n"));
}

TEST_F(StartUpDaemonDeathTest, NoForkWithoutTheOption) {
  EXPECT_EXIT(
      {
        const Fault fault("fork", EAGAIN);
        start({"-t", "-f", config("")});
      },
      ExitedWithCode(0), Not(HasSubstr("fork")));
}

TEST_F(StartUpDaemonDeathTest, FailedForkIsLoggedAndTheStartGoesOn) {
  EXPECT_EXIT(
      {
        const Fault fault("fork", EAGAIN);
        start({"-d", "-t", "-f", "/nonexistent"});
      },
      ExitedWithCode(0),
      HasSubstr("<4> %WAN-W-ERR: Can't fork to run as daemon, continuing in the foreground\n"
                "<4> %WAN-W-ERR: wan_lb: configuration file not found: "));
}
