#include "platform/crash_report.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <thread>

#include "platform/file_descriptor.h"
#include "platform/syslog.h"
#include "support/temporary_directory.h"
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

// What is sent to the log goes to standard error with a mark, where the parent sees it.
void install() {
  wrapped::connect.set_hook([](int, const sockaddr* address, socklen_t) {
    fprintf(stderr, "TO %s\n", reinterpret_cast<const sockaddr_un*>(address)->sun_path);
    return 0;
  });
  wrapped::send.set_hook([](int, const void* data, size_t size, int) {
    fprintf(stderr, "LOG%.*s\n", static_cast<int>(size), static_cast<const char*>(data));
    return static_cast<ssize_t>(size);
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

// A log with a full queue, which nobody reads.
class FullLog {
 public:
  FullLog() {
    const std::string path = directory_.file("log");
    address_.sun_family = AF_UNIX;
    path.copy(address_.sun_path, sizeof(address_.sun_path) - 1);
    bind(log_.get(), reinterpret_cast<sockaddr*>(&address_), sizeof(address_));
    const FileDescriptor sender(make_socket(SOCK_NONBLOCK));
    connect(sender.get(), reinterpret_cast<sockaddr*>(&address_), sizeof(address_));
    while (send(sender.get(), "x", 1, 0) == 1) {
    }
  }
  const sockaddr* address() const { return reinterpret_cast<const sockaddr*>(&address_); }

 private:
  static FileDescriptor make_socket(int flags) {
    return FileDescriptor(socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC | flags, 0));
  }

  const TemporaryDirectory directory_;
  sockaddr_un address_{};
  const FileDescriptor log_ = make_socket(0);
};

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
            testing::HasSubstr("\nTO /dev/log\n"),
            // The facility daemon, critical.
            testing::ContainsRegex("\nLOG<26>wan_lb\\[[0-9]+\\]: lb: fatal signal "),
            testing::ContainsRegex("\nLOG<26>wan_lb\\[[0-9]+\\]: #[0-9]+ .*crash_here")));
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
        // As the report might when the crashed thread held a lock.
        wrapped::send.set_hook([](int, const void*, size_t, int) -> ssize_t {
          alarm(1);  // sooner than the report's own
          for (;;) pause();
        });
        crash_here(SIGSEGV);
      },
      testing::KilledBySignal(SIGSEGV), "fatal signal 11");
}

// The thread that serves the log waits for it, with messages of before.
TEST_F(CrashReportDeathTest, ReportDoesNotGoByTheThreadOfTheLog) {
  EXPECT_EXIT(
      {
        install();
        wrapped::syslog.set_hook([](int, const char*, const char*) {
          for (;;) pause();
        });
        for (int i = 0; i < 5; ++i) SYSLOG_message(4, "before");
        crash_here(SIGSEGV);
      },
      testing::KilledBySignal(SIGSEGV),
      testing::ContainsRegex("\nLOG<26>wan_lb\\[[0-9]+\\]: #[0-9]+ .*crash_here"));
}

TEST_F(CrashReportDeathTest, LogThatIsFullIsNotWaitedFor) {
  const auto start = std::chrono::steady_clock::now();
  EXPECT_EXIT(
      {
        const FullLog log;
        wrapped::connect.set_hook([&log](int fd, const sockaddr*, socklen_t) {
          return wrapped::connect.real(fd, log.address(), sizeof(sockaddr_un));
        });
        backtrace_open_console();
        backtrace_install_signal_handlers();
        crash_here(SIGSEGV);
      },
      testing::KilledBySignal(SIGSEGV), "\n#[0-9]+ .*crash_here");
  // Sooner than the alarm would have ended a report that is stuck.
  EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(20));
}

TEST_F(CrashReportDeathTest, ConsoleIsSilentUntilItIsOpened) {
  EXPECT_EXIT(
      {
        wrapped::connect.set_hook([](int, const sockaddr*, socklen_t) { return -1; });
        backtrace_install_signal_handlers();
        crash_here(SIGSEGV);
      },
      testing::KilledBySignal(SIGSEGV), testing::Not(testing::HasSubstr("crash report")));
}

#endif
