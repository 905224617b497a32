// The tests' own tools: what they promise, other tests build on.
#include <gtest/gtest.h>
#include <poll.h>
#include <sys/socket.h>

#include <atomic>
#include <thread>

#include "platform/clock.h"
#include "platform/file_descriptor.h"
#include "platform/mutex.h"
#include "platform/syslog.h"
#include "support/recorded_log.h"
#include "support/temporary_directory.h"
#include "support/virtual_clock/virtual_clock.h"
#include "support/wrapped_calls.h"

using testing::ElementsAre;
using namespace std::chrono_literals;

TEST(WrappedCallsTest, CountsAndPassesOn) {
  EXPECT_EQ(call_count("socket"), 0);
  FileDescriptor fd(socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0));
  EXPECT_TRUE(fd.valid());
  EXPECT_EQ(call_count("socket"), 1);
  fd.reset();
  EXPECT_EQ(call_count("close"), 1);
}

TEST(WrappedCallsTest, FaultSkipsThenFailsThenPasses) {
  Fault fault("socket", EMFILE, /*skip=*/1, /*times=*/1);
  FileDescriptor first(socket(AF_UNIX, SOCK_DGRAM, 0));
  EXPECT_TRUE(first.valid());
  errno = 0;
  EXPECT_EQ(socket(AF_UNIX, SOCK_DGRAM, 0), -1);
  EXPECT_EQ(errno, EMFILE);
  FileDescriptor third(socket(AF_UNIX, SOCK_DGRAM, 0));
  EXPECT_TRUE(third.valid());
}

TEST(WrappedCallsTest, FaultTakesTheFormOfTheCall) {
  {
    Fault fault("pthread_mutex_lock", EDEADLK, 0, 1);
    pthread_mutex_t mutex = PTHREAD_MUTEX_INITIALIZER;
    const int result = pthread_mutex_lock(&mutex);
    EXPECT_EQ(result, EDEADLK);
  }
  {
    Fault fault("fopen", ENOSPC);
    FILE* const file = fopen("/dev/null", "r");
    EXPECT_EQ(file, nullptr);
    EXPECT_EQ(errno, ENOSPC);
  }
  Fault fault("if_nametoindex", ENODEV);
  EXPECT_EQ(if_nametoindex("lo"), 0u);
}

TEST(WrappedCallsTest, FaultEndsWithItsObject) {
  { Fault fault("socket", EMFILE); }
  FileDescriptor fd(socket(AF_UNIX, SOCK_DGRAM, 0));
  EXPECT_TRUE(fd.valid());
}

TEST(WrappedCallsTest, HookReplacesTheCall) {
  std::string sent;
  CallHook hook(
      wrapped::sendto,
      [&](int, const void* data, size_t size, int, const sockaddr*, socklen_t) -> ssize_t {
        sent.assign(static_cast<const char*>(data), size);
        return static_cast<ssize_t>(size);
      });
  EXPECT_EQ(sendto(-1, "abc", 3, 0, nullptr, 0), 3);
  EXPECT_EQ(sent, "abc");
}

TEST(WrappedCallsTest, HookGivesItsPlaceBack) {
  CallHook outer(wrapped::if_nametoindex, [](const char*) { return 1u; });
  {
    CallHook inner(wrapped::if_nametoindex, [](const char*) { return 2u; });
    EXPECT_EQ(if_nametoindex("lo"), 2u);
  }
  EXPECT_EQ(if_nametoindex("lo"), 1u);
}

TEST(WrappedCallsTest, HookEndsAfterTheThreadsInsideIt) {
  std::atomic<bool> inside{false};
  std::atomic<bool> left{false};
  std::thread caller;
  {
    CallHook hook(wrapped::if_nametoindex, [&](const char*) {
      inside = true;
      std::this_thread::sleep_for(50ms);
      left = true;
      return 1u;
    });
    caller = std::thread([] { if_nametoindex("lo"); });
    while (!inside) std::this_thread::yield();
  }
  EXPECT_TRUE(left);
  caller.join();
}

TEST(WrappedCallsTest, HookThatThrowsIsLeft) {
  const auto call = [] {
    // A call that the library declares as one that may throw, since it may be cancelled.
    CallHook hook(wrapped::poll, [](pollfd*, nfds_t, int) -> int { throw 1; });
    poll(nullptr, 0, 0);
  };
  EXPECT_THROW(call(), int);
}

TEST(WrappedCallsTest, ReachTheCallsOfOtherThreads) {
  Fault fault("socket", EMFILE);
  int result = 0;
  std::thread([&] { result = socket(AF_UNIX, SOCK_DGRAM, 0); }).join();
  EXPECT_EQ(result, -1);
}

TEST(RecordedLogTest, KeepsPriorityAndExpandedText) {
  SYSLOG_message(4, "%%%s-%s-%s: <%s> failed", "WAN", "W", "ERR", "init");
  EXPECT_THAT(log_records(), ElementsAre(LoggedError("<init> failed")));
  clear_log();
  EXPECT_THAT(log_records(), ElementsAre());
}

TEST(RecordedLogTest, FlagsCanBeSwitched) {
  EXPECT_EQ(SYSLOG_flag_get(34, 2), 1);
  EXPECT_EQ(SYSLOG_flag_get(34, 3), 0);
  EXPECT_EQ(SYSLOG_flag_get(35, 0), 0);
  set_log_flag(3, true);
  EXPECT_EQ(SYSLOG_flag_get(34, 3), 1);
}

TEST(VirtualClockTest, MovesOnlyWhenTold) {
  const timespec before = monotonic_now();
  virtual_clock::advance(1500ms);
  EXPECT_EQ(monotonic_now().tv_sec, before.tv_sec + 1);
  EXPECT_EQ(monotonic_now().tv_nsec, 500'000'000);
  sleep_for({2, 0});
  EXPECT_EQ(monotonic_now().tv_sec, before.tv_sec + 3);
  EXPECT_THAT(virtual_clock::sleeps(), ElementsAre(2s));
}

TEST(VirtualClockTest, ActionEndsAfterTheThreadsInsideIt) {
  std::atomic<bool> inside{false};
  std::atomic<bool> left{false};
  std::thread sleeper;
  {
    const virtual_clock::SleepHook hook([&](std::chrono::nanoseconds) {
      inside = true;
      std::this_thread::sleep_for(50ms);
      left = true;
    });
    sleeper = std::thread([] { sleep_for({1, 0}); });
    while (!inside) std::this_thread::yield();
  }
  EXPECT_TRUE(left);
  sleeper.join();
  left = false;
  sleep_for({1, 0});
  EXPECT_FALSE(left);
}

TEST_F(TemporaryDirectoryTest, HoldsFiles) {
  directory_.write("a/b.txt", "text");
  EXPECT_EQ(directory_.read("a/b.txt"), "text");
  EXPECT_EQ(directory_.read("none"), "");
}
