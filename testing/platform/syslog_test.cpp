// The log of stock Linux: what reaches syslog(3). Only the file's place and syslog itself are
// replaced.
#include "platform/syslog.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <optional>
#include <thread>
#include <vector>

#include "config/log.h"
#include "support/spin_lock.h"
#include "support/temporary_directory.h"
#include "support/virtual_clock/virtual_clock.h"
#include "support/wrapped_calls.h"

using testing::ElementsAre;
using testing::EndsWith;
using testing::IsEmpty;
using testing::Pair;
using testing::SizeIs;
using namespace std::chrono_literals;

namespace {

constexpr std::string_view kFlagsPath = "/etc/wan_lb/log-flags";

// The log remembers over the tests: each starts some hours later, and tells first what
// was held back in the one before.
class SyslogTest : public TemporaryDirectoryTest {
 protected:
  void SetUp() override {
    static int hours = 0;
    virtual_clock::advance(std::chrono::hours(++hours));
    SYSLOG_flag_get(34, 0);
    virtual_clock::advance(2min);
    SYSLOG_flag_get(34, 0);
    sent_.clear();
  }

  void write_flags(std::string_view content) {
    directory_.write("log-flags", content);
    virtual_clock::advance(500ms);
  }

  std::string place(const char* path) {
    return path == kFlagsPath ? directory_.file("log-flags") : path;
  }

  SpinLock lock_;
  std::vector<std::pair<int, std::string>> sent_;
  CallHook<void(int, const char*, const char*)> syslog_hook_{
      wrapped::syslog, [this](int priority, const char* format, const char* text) {
        EXPECT_STREQ(format, "%s");
        SpinLockHolder holder(lock_);
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

}  // namespace

TEST_F(SyslogTest, SendsTheExpandedText) {
  LB_ERROR("<%s> socket() failed", "init");
  LB_WARNING("%d", 7);
  LB_INSTANCE("IP interface %s changed state to active", "eth0");
  EXPECT_THAT(sent_,
              ElementsAre(Pair(4, "%WAN-W-ERR: <init> socket() failed"), Pair(4, "%WAN-W-WARN: 7"),
                          Pair(6,
                               "%WAN-I-INSTANCE: IP interface eth0 changed state to "
                               "active")));
}

TEST_F(SyslogTest, PercentSignsOfArgumentsAreLeftAlone) {
  LB_ERROR("%s", "%n%s%d");
  EXPECT_THAT(sent_, ElementsAre(Pair(4, "%WAN-W-ERR: %n%s%d")));
}

TEST_F(SyslogTest, DebugIsOffUntilTheFlagsSayOtherwise) {
  LB_DEBUG("one");
  EXPECT_THAT(sent_, IsEmpty());
  write_flags("34 3\n");
  LB_DEBUG("two");
  EXPECT_THAT(sent_, ElementsAre(Pair(7, "%WAN-D-DBG: two")));
}

TEST_F(SyslogTest, FlagsSwitchErrorsOff) {
  write_flags("34 0\n");
  LB_ERROR("error");
  LB_INSTANCE("state");
  EXPECT_THAT(sent_, ElementsAre(Pair(6, "%WAN-I-INSTANCE: state")));
}

TEST_F(SyslogTest, BadFlagsAreWarnedOfAndLoggingGoesOn) {
  write_flags("34 3\nnonsense\n");
  LB_DEBUG("still here");
  EXPECT_THAT(sent_, ElementsAre(Pair(4,
                                      "%WAN-W-WARN: /etc/wan_lb/log-flags:2: 'nonsense' is "
                                      "neither a facility number nor 'repeats'"),
                                 Pair(7, "%WAN-D-DBG: still here")));
}

TEST_F(SyslogTest, RepeatedWarningsAndDebugAreHeldBack) {
  write_flags("34 3\n");
  for (int second = 0; second < 120; ++second) {
    LB_ERROR("down");
    LB_DEBUG("trace");
    virtual_clock::advance(1s);
  }
  EXPECT_THAT(sent_, ElementsAre(Pair(4, "%WAN-W-ERR: down"), Pair(7, "%WAN-D-DBG: trace"),
                                 Pair(4, "%WAN-W-ERR: down (59 more held back)"),
                                 Pair(7, "%WAN-D-DBG: trace (59 more held back)")));
}

TEST_F(SyslogTest, CountIsToldAtTheNextLookWithoutAMessage) {
  LB_ERROR("lost");
  LB_ERROR("lost");
  virtual_clock::advance(61s);
  SYSLOG_flag_get(34, 3);
  EXPECT_THAT(sent_, ElementsAre(Pair(4, "%WAN-W-ERR: lost"),
                                 Pair(4, "%WAN-W-ERR: lost (1 more held back)")));
}

TEST_F(SyslogTest, StateChangesAlwaysPass) {
  for (int i = 0; i < 3; ++i) LB_INSTANCE("changed");
  EXPECT_THAT(sent_, SizeIs(3));
}

TEST_F(SyslogTest, FlagsMayLetAllRepeatsPass) {
  write_flags("repeats all\n");
  for (int i = 0; i < 3; ++i) LB_ERROR("down");
  EXPECT_THAT(sent_, SizeIs(3));
}

TEST_F(SyslogTest, LongTextIsCut) {
  LB_INSTANCE("%s", std::string(1'000'000, 'x').c_str());
  ASSERT_THAT(sent_, SizeIs(1));
  EXPECT_EQ(sent_[0].second.size(), 8000u);
  EXPECT_THAT(sent_[0].second, EndsWith("xxxx ..."));
}

TEST_F(SyslogTest, LongestTextIsNotCut) {
  SYSLOG_message(6, "%s", std::string(7999, 'x').c_str());
  ASSERT_THAT(sent_, SizeIs(1));
  EXPECT_EQ(sent_[0].second, std::string(7999, 'x'));
}

TEST_F(SyslogTest, ThreadsMayLogAtTheSameTime) {
  std::vector<std::thread> threads;
  for (int t = 0; t < 4; ++t) {
    threads.emplace_back([t] {
      for (int i = 0; i < 200; ++i) {
        LB_ERROR("thread %d message %d", t, i);
        LB_ERROR("the same");
      }
    });
  }
  for (std::thread& thread : threads) thread.join();
  EXPECT_THAT(sent_, SizeIs(testing::Ge(801u)));
}
