// The service manager's side of the watchdog: a datagram socket in NOTIFY_SOCKET.
#include "platform/watchdog.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <cstdlib>
#include <string>
#include <thread>
#include <vector>

#include "platform/file_descriptor.h"
#include "support/temporary_directory.h"
#include "support/virtual_clock/virtual_clock.h"

using testing::ElementsAre;
using testing::IsEmpty;
using namespace std::chrono_literals;

namespace {

class WatchdogTest : public TemporaryDirectoryTest {
 protected:
  void SetUp() override {
    // What earlier tests reported is fresh again.
    virtual_clock::advance(std::chrono::hours(24));
    socket_ = FileDescriptor(socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    const std::string path = directory_.file("notify");
    path.copy(address.sun_path, sizeof(address.sun_path) - 1);
    ASSERT_EQ(bind(socket_.get(), reinterpret_cast<sockaddr*>(&address), sizeof(address)), 0);
    setenv("NOTIFY_SOCKET", path.c_str(), 1);
  }

  void TearDown() override {
    unsetenv("NOTIFY_SOCKET");
    unsetenv("WATCHDOG_USEC");
    unsetenv("WATCHDOG_PID");
  }

  // What the service manager was told since the last call.
  std::vector<std::string> told() {
    std::vector<std::string> texts;
    char buffer[256];
    ssize_t size = 0;
    while ((size = recv(socket_.get(), buffer, sizeof(buffer), 0)) >= 0) {
      texts.emplace_back(buffer, static_cast<size_t>(size));
    }
    return texts;
  }

  FileDescriptor socket_;
};

}  // namespace

TEST_F(WatchdogTest, DaemonIsAnnouncedByItsPid) {
  send_signal_live(4711, 1);
  send_signal_live(1, 1);
  EXPECT_THAT(told(), ElementsAre("MAINPID=4711\nREADY=1",
                                  "MAINPID=" + std::to_string(getpid()) + "\nREADY=1"));
}

TEST_F(WatchdogTest, EndIsAnnounced) {
  send_signal_live(1, 0);
  EXPECT_THAT(told(), ElementsAre("STOPPING=1"));
}

TEST_F(WatchdogTest, SilentWithoutAServiceManager) {
  unsetenv("NOTIFY_SOCKET");
  send_signal_live(1, 1);
  WatchdogWord timeout = 1'000'000;
  WatchdogWord last = 0;
  send_and_shift_timeout(&timeout, &last, 1);
  EXPECT_THAT(told(), IsEmpty());
}

TEST_F(WatchdogTest, TimeoutIsTheServiceManagers) {
  WatchdogWord timeout = 7;
  set_timeout(&timeout);
  EXPECT_EQ(timeout, 0u);
  setenv("WATCHDOG_USEC", "30000000", 1);
  set_timeout(&timeout);
  EXPECT_EQ(timeout, 30'000'000u);
  setenv("WATCHDOG_PID", std::to_string(getpid()).c_str(), 1);
  set_timeout(&timeout);
  EXPECT_EQ(timeout, 30'000'000u);
  setenv("WATCHDOG_PID", "1", 1);  // meant for another process
  set_timeout(&timeout);
  EXPECT_EQ(timeout, 0u);
}

TEST_F(WatchdogTest, TimeoutPassesToADaemonisedChild) {
  setenv("WATCHDOG_USEC", "30000000", 1);
  setenv("WATCHDOG_PID", std::to_string(getpid()).c_str(), 1);
  const pid_t child = fork();
  ASSERT_GE(child, 0);
  if (child == 0) {
    WatchdogWord timeout = 0;
    set_timeout(&timeout);
    _exit(timeout == 30'000'000 ? 0 : 1);
  }
  int status = -1;
  ASSERT_EQ(waitpid(child, &status, 0), child);
  EXPECT_EQ(status, 0);
}

TEST_F(WatchdogTest, NothingIsFedWithoutATimeout) {
  WatchdogWord timeout = 0;
  WatchdogWord last = 0;
  send_and_shift_timeout(&timeout, &last, 1);
  EXPECT_THAT(told(), IsEmpty());
}

// One test, since a thread that reported once is waited for until the process ends.
TEST_F(WatchdogTest, FedWhileEveryThreadReports) {
  WatchdogWord timeout = 2'000'000;
  WatchdogWord last = 0;
  send_and_shift_timeout(&timeout, &last, 1);
  EXPECT_THAT(told(), ElementsAre("WATCHDOG=1"));
  const WatchdogWord first = last;
  virtual_clock::advance(1s);
  send_and_shift_timeout(&timeout, &last, 1);
  EXPECT_EQ(last, first + 1'000'000);
  EXPECT_THAT(told(), ElementsAre("WATCHDOG=1"));

  send_and_shift_timeout(&timeout, &last, 0);
  EXPECT_THAT(told(), IsEmpty());
  send_and_shift_timeout(&timeout, &last, 1);
  EXPECT_THAT(told(), ElementsAre("WATCHDOG=1"));

  // A second thread reports twice, then goes on living without a report.
  std::atomic<int> reports{0};
  std::atomic<int> wanted{1};
  std::thread other([&] {
    while (reports < 2) {
      if (reports < wanted) {
        send_and_shift_timeout(&timeout, &last, 1);
        ++reports;
      }
      std::this_thread::yield();
    }
  });
  while (reports < 1) std::this_thread::yield();
  EXPECT_THAT(told(), ElementsAre("WATCHDOG=1"));
  virtual_clock::advance(2s);
  send_and_shift_timeout(&timeout, &last, 1);
  EXPECT_THAT(told(), ElementsAre("WATCHDOG=1"));
  virtual_clock::advance(1us);
  send_and_shift_timeout(&timeout, &last, 1);
  EXPECT_THAT(told(), IsEmpty());
  wanted = 2;
  other.join();
  EXPECT_THAT(told(), ElementsAre("WATCHDOG=1"));
  virtual_clock::advance(3s);
  send_and_shift_timeout(&timeout, &last, 1);
  EXPECT_THAT(told(), IsEmpty());  // the thread that ended is missed
}
