#include "platform/crash_report.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <signal.h>

#include <cstdio>
#include <cstdlib>
#include <thread>

#include "platform/syslog.h"
#include "support/wrapped_calls.h"

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
#define LB_SANITIZED 1
#elif defined(__has_feature)
#if __has_feature(address_sanitizer) || __has_feature(thread_sanitizer)
#define LB_SANITIZED 1
#endif
#endif

namespace {

class CrashReportDeathTest : public testing::Test {
 protected:
  CrashReportDeathTest() { testing::FLAGS_gtest_death_test_style = "threadsafe"; }
};

#if !defined(LB_SANITIZED)

// The log's lines go to standard error with a mark, where the parent sees them.
void install() {
  wrapped::syslog.set_hook([](int priority, const char*, const char* text) {
    fprintf(stderr, "LOG<%d> %s\n", priority, text);
  });
  backtrace_set_program_name("/usr/sbin/lb");
  backtrace_open_console();
  backtrace_install_signal_handlers();
}

__attribute__((noinline)) void crash_here(int signal) {
  raise(signal);
  asm volatile("");  // no tail call: the function stays on the stack
}

__attribute__((noinline)) int use_up_the_stack(volatile char* above) {
  volatile char buffer[4096];
  if (above != nullptr && above[0] != '\0') return 1;  // never
  buffer[0] = '\0';
  const int below = use_up_the_stack(buffer);
  return below + buffer[0];
}

#endif

}  // namespace

#if defined(LB_SANITIZED)

// A sanitizer reports crashes better; its handlers must be left alone.
TEST_F(CrashReportDeathTest, SanitizersKeepTheirHandlers) {
  struct sigaction before {};
  struct sigaction after {};
  for (const int signal : {SIGSEGV, SIGABRT, SIGFPE}) {
    sigaction(signal, nullptr, &before);
    backtrace_install_signal_handlers();
    sigaction(signal, nullptr, &after);
    EXPECT_EQ(before.sa_handler, after.sa_handler);
  }
}

#else

TEST_F(CrashReportDeathTest, StackGoesToConsoleAndLogAndTheSignalEndsTheProcess) {
  for (const int signal : {SIGSEGV, SIGBUS}) {
    EXPECT_EXIT(
        {
          install();
          crash_here(signal);
        },
        testing::KilledBySignal(signal),
        testing::AllOf(
            testing::HasSubstr("lb: crash report\n"),
            testing::ContainsRegex("\nlb: fatal signal " + std::to_string(signal) + " \\("),
            testing::ContainsRegex("\n#[0-9]+ .*crash_report_test.cpp.*crash_here"),
            testing::HasSubstr("\nLOG<2> lb: fatal signal "),
            testing::ContainsRegex("\nLOG<2> #[0-9]+ .*crash_here")));
  }
}

TEST_F(CrashReportDeathTest, AbortIsReported) {
  EXPECT_EXIT(
      {
        install();
        std::abort();
      },
      testing::KilledBySignal(SIGABRT), "fatal signal 6");
}

TEST_F(CrashReportDeathTest, CrashOfAnyThreadIsReported) {
  EXPECT_EXIT(
      {
        install();
        std::thread([] { crash_here(SIGSEGV); }).join();
      },
      testing::KilledBySignal(SIGSEGV), "crash_here");
}

TEST_F(CrashReportDeathTest, UsedUpStackIsReported) {
  EXPECT_EXIT(
      {
        install();
        use_up_the_stack(nullptr);
      },
      testing::KilledBySignal(SIGSEGV), "use_up_the_stack");
}

TEST_F(CrashReportDeathTest, StuckReportEndsByTheSameSignal) {
  EXPECT_EXIT(
      {
        install();
        // The log hangs, as it would when the crashed thread held its lock.
        wrapped::syslog.set_hook([](int, const char*, const char*) {
          alarm(1);  // sooner than the report's own
          for (;;) pause();
        });
        crash_here(SIGSEGV);
      },
      testing::KilledBySignal(SIGSEGV), "fatal signal 11");
}

TEST_F(CrashReportDeathTest, ConsoleIsSilentUntilItIsOpened) {
  EXPECT_EXIT(
      {
        wrapped::syslog.set_hook([](int, const char*, const char*) {});
        backtrace_install_signal_handlers();
        crash_here(SIGSEGV);
      },
      testing::KilledBySignal(SIGSEGV), testing::Not(testing::HasSubstr("crash report")));
}

#endif
