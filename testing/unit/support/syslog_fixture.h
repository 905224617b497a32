// The system log of stock Linux, with its file of flags in a directory of the test's own and
// syslog(3) in the test's hands.
#pragma once

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <string>
#include <string_view>
#include <thread>
#include <utility>
#include <vector>

#include "config/log.h"
#include "support/spin_lock.h"
#include "support/temporary_directory.h"
#include "support/virtual_clock/virtual_clock.h"
#include "support/wrapped_calls.h"

// The log remembers over the tests: each starts some hours later, and tells first what was held
// back in the one before.
class SyslogFixture : public TemporaryDirectoryTest {
 protected:
  using Sent = std::vector<std::pair<int, std::string>>;

  void SetUp() override {
    using namespace std::chrono_literals;
    static int hours = 0;
    virtual_clock::advance(std::chrono::hours(++hours));
    SYSLOG_flag_get(34, 0);
    virtual_clock::advance(2min);
    SYSLOG_flag_get(34, 0);
    wait_for_the_log();
    const SpinLockHolder holder(lock_);
    sent_.clear();
  }

  // Nothing is on its way when the hooks go.
  void TearDown() override { wait_for_the_log(); }

  void write_flags(std::string_view content) {
    using namespace std::chrono_literals;
    directory_.write("log-flags", content);
    virtual_clock::advance(500ms);
  }

  // Priority and text of all that was sent to the log up to now.
  Sent sent() {
    wait_for_the_log();
    const SpinLockHolder holder(lock_);
    return sent_;
  }

  // The log takes nothing from here on; it has one message in its hands.
  void hold_log() {
    held_ = true;
    SYSLOG_message(6, "held");
    ASSERT_TRUE(wait_until([this] { return holding_.load(); }));
  }
  void release_log() { held_ = false; }

  // Waits until such a message has been sent; false when none comes.
  bool wait_for(std::string_view text) {
    return wait_until([&] {
      const SpinLockHolder holder(lock_);
      return std::any_of(sent_.begin(), sent_.end(),
                         [&](const auto& sent) { return sent.second == text; });
    });
  }

  // As any thread but the main one, which runs the tests.
  template <typename Work>
  static void in_a_thread(Work work) {
    std::thread(work).join();
  }

 private:
  static constexpr std::string_view kFlagsPath = "/etc/wan_lb/log-flags";
  static constexpr std::string_view kMark = "the last message up to now";

  // False when it takes 20 seconds.
  template <typename Condition>
  static bool wait_until(Condition condition) {
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(20);
    while (!condition()) {
      if (std::chrono::steady_clock::now() > deadline) return false;
      std::this_thread::yield();
    }
    return true;
  }

  // Messages keep their order: one that arrives is the last.
  void wait_for_the_log() {
    SYSLOG_message(6, "%s", std::string(kMark).c_str());
    ASSERT_TRUE(wait_for(kMark)) << "a message does not reach the log";
    const SpinLockHolder holder(lock_);
    std::erase_if(sent_, [](const auto& sent) { return sent.second == kMark; });
  }

  std::string place(const char* path) const {
    return path == kFlagsPath ? directory_.file("log-flags") : path;
  }

  std::atomic<bool> held_{false};
  std::atomic<bool> holding_{false};
  SpinLock lock_;
  Sent sent_;
  CallHook<void(int, const char*, const char*)> syslog_hook_{
      wrapped::syslog, [this](int priority, const char* format, const char* text) {
        EXPECT_STREQ(format, "%s");
        holding_ = held_.load();
        if (!wait_until([this] { return !held_; })) held_ = false;
        const SpinLockHolder holder(lock_);
        sent_.emplace_back(priority, text);
      }};
  CallHook<int(const char*, struct stat*)> stat_hook_{
      wrapped::stat, [this](const char* path, struct stat* result) {
        return wrapped::stat.real(place(path).c_str(), result);
      }};
  CallHook<int(const char*, int, mode_t)> open_hook_{
      wrapped::open, [this](const char* path, int flags, mode_t mode) {
        return wrapped::open.real(place(path).c_str(), flags, mode);
      }};
};
