// A system log that reads slowly or not at all.
#include <gmock/gmock.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <future>
#include <thread>

#include "support/syslog_fixture.h"

using testing::EndsWith;
using testing::ExitedWithCode;
using namespace std::chrono_literals;

namespace {

using SyslogSlowLogTest = SyslogFixture;

// Each runs in a process of its own, without this one's threads.
class SyslogExitDeathTest : public testing::Test {
 protected:
  SyslogExitDeathTest() { GTEST_FLAG_SET(death_test_style, "threadsafe"); }

  // Messages go to standard error, once the log takes them.
  template <typename Delay>
  static void send_to_stderr_after(Delay delay) {
    wrapped::syslog.set_hook([delay](int, const char*, const char* text) {
      delay();
      fprintf(stderr, "%s\n", text);
    });
  }
};

}  // namespace

TEST_F(SyslogSlowLogTest, HoldsUpNobody) {
  hold_log();
  std::future<void> done = std::async(std::launch::async, [] {
    for (int i = 0; i < 1500; ++i) LB_ERROR("error %d", i);
    LB_INSTANCE("state");
  });
  EXPECT_EQ(done.wait_for(20s), std::future_status::ready);
  release_log();
  done.get();
  EXPECT_TRUE(wait_for("%WAN-I-INSTANCE: state"));
  EXPECT_TRUE(wait_for("%WAN-W-WARN: 500 messages dropped, the log did not take them"));
}

// --- the end of the process ---

TEST_F(SyslogExitDeathTest, LastMessagesAreWaitedFor) {
  EXPECT_EXIT(
      {
        static std::atomic_bool has_begun = false;  // the log's thread, which may take its time
        send_to_stderr_after([] {
          has_begun = true;
          std::this_thread::sleep_for(20ms);
        });
        LB_ERROR("one");
        LB_ERROR("two");
        while (!has_begun) std::this_thread::sleep_for(1ms);
        std::exit(3);
      },
      ExitedWithCode(3), EndsWith("%WAN-W-ERR: one\n%WAN-W-ERR: two\n"));
}

TEST_F(SyslogExitDeathTest, LogThatDoesNotReadDelaysTheEndByASecondAtMost) {
  const auto start = std::chrono::steady_clock::now();
  EXPECT_EXIT(
      {
        send_to_stderr_after([] {
          for (;;) pause();
        });
        LB_ERROR("one");
        alarm(20);  // would be the process's end
        std::exit(3);
      },
      ExitedWithCode(3), "");
  EXPECT_LT(std::chrono::steady_clock::now() - start, 15s);
}

TEST_F(SyslogExitDeathTest, EndWithoutAMessageTakesNoTime) {
  EXPECT_EXIT(
      {
        SYSLOG_flag_get(34, 3);
        std::exit(call_count("pthread_create"));
      },
      ExitedWithCode(0), "");
}
