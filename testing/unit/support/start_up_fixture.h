// Starts of the daemon, each in a process of its own, which reports what it did before it ends.
#pragma once

#include <fcntl.h>
#include <getopt.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

#include "core/start_up.h"
#include "support/recorded_device.h"
#include "support/recorded_log.h"
#include "support/temporary_directory.h"
#include "support/virtual_clock/virtual_clock.h"
#include "support/wrapped_calls.h"

inline constexpr const char* kCrashReport =
    "backtrace_set_program_name lb\n"
    "backtrace_open_console\n"
    "backtrace_install_signal_handlers\n";

inline int report_fd = -1;  // standard error, also once the daemon has closed it

// The calls to the device, the log, the threads and the sleeps.
inline void report() {
  for (const std::string& call : recorded_device::calls()) dprintf(report_fd, "%s\n", call.c_str());
  for (const LogRecord& record : log_records()) {
    dprintf(report_fd, "<%d> %s\n", record.priority, record.text.c_str());
  }
  dprintf(report_fd, "threads %d\n", call_count("pthread_create"));
  for (const auto& sleep : virtual_clock::sleeps()) {
    dprintf(report_fd, "sleep %lld\n", static_cast<long long>(sleep.count() / 1'000'000'000));
  }
  dprintf(report_fd, "end\n");
}

class StartUpFixture : public TemporaryDirectoryTest {
 protected:
  StartUpFixture() {
    // The process that runs the statement starts anew, without this one's threads.
    GTEST_FLAG_SET(death_test_style, "threadsafe");
  }

  // Ends the process with the status that run_daemon returns, or with 77 at the second sleep.
  [[noreturn]] static void start(std::vector<std::string> arguments) {
    report_fd = fcntl(2, F_DUPFD_CLOEXEC, 100);
    dup2(2, 1);  // only standard error is captured
    setvbuf(stdout, nullptr, _IONBF, 0);
    atexit(report);
    virtual_clock::on_sleep([](std::chrono::nanoseconds) {
      if (virtual_clock::sleeps().size() == 2) exit(77);
    });
    arguments.insert(arguments.begin(), "lb");
    std::vector<char*> argv;
    for (std::string& argument : arguments) argv.push_back(argument.data());
    argv.push_back(nullptr);
    optind = 0;
    exit(run_daemon(static_cast<int>(arguments.size()), argv.data()));
  }

  std::string config(const std::string& text) const { return directory_.write("lb.conf", text); }

  // Starts with VRFs whose namespaces cannot be entered, so that all threads end at once.
  [[noreturn]] static void start_and_fall_idle(const std::vector<std::string>& arguments) {
    recorded_device::set_netns_result(-1);
    start(arguments);
  }
};
