// The log of stock Linux: what reaches syslog(3). Only the file's place and syslog itself are
// replaced.
#include "platform/syslog.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <thread>
#include <vector>

#include "support/syslog_fixture.h"

using testing::ElementsAre;
using testing::EndsWith;
using testing::IsEmpty;
using testing::Pair;
using testing::SizeIs;
using namespace std::chrono_literals;

namespace {

using SyslogTest = SyslogFixture;

}  // namespace

TEST_F(SyslogTest, SendsTheExpandedText) {
  LB_ERROR("<%s> socket() failed", "init");
  LB_WARNING("%d", 7);
  LB_INSTANCE("IP interface %s changed state to active", "eth0");
  EXPECT_THAT(sent(),
              ElementsAre(Pair(4, "%WAN-W-ERR: <init> socket() failed"), Pair(4, "%WAN-W-WARN: 7"),
                          Pair(6,
                               "%WAN-I-INSTANCE: IP interface eth0 changed state to "
                               "active")));
}

TEST_F(SyslogTest, PercentSignsOfArgumentsAreLeftAlone) {
  LB_ERROR("%s", "%n%s%d");
  EXPECT_THAT(sent(), ElementsAre(Pair(4, "%WAN-W-ERR: %n%s%d")));
}

TEST_F(SyslogTest, DebugIsOffUntilTheFlagsSayOtherwise) {
  LB_DEBUG("one");
  EXPECT_THAT(sent(), IsEmpty());
  write_flags("34 3\n");
  LB_DEBUG("two");
  EXPECT_THAT(sent(), ElementsAre(Pair(7, "%WAN-D-DBG: two")));
}

TEST_F(SyslogTest, FlagsSwitchErrorsOff) {
  write_flags("34 0\n");
  LB_ERROR("error");
  LB_INSTANCE("state");
  EXPECT_THAT(sent(), ElementsAre(Pair(6, "%WAN-I-INSTANCE: state")));
}

TEST_F(SyslogTest, BadFlagsAreWarnedOfAndLoggingGoesOn) {
  write_flags("34 3\nnonsense\n");
  LB_DEBUG("still here");
  EXPECT_THAT(sent(), ElementsAre(Pair(4,
                                       "%WAN-W-WARN: /etc/wan_lb/log-flags:2: 'nonsense' is "
                                       "neither a facility number nor 'repeats'"),
                                  Pair(7, "%WAN-D-DBG: still here")));
}

TEST_F(SyslogTest, RepeatedWarningsAndDebugAreHeldBack) {
  write_flags("34 3\n");
  in_a_thread([] {
    for (int second = 0; second < 120; ++second) {
      LB_ERROR("down");
      LB_DEBUG("trace");
      virtual_clock::advance(1s);
    }
  });
  EXPECT_THAT(sent(), ElementsAre(Pair(4, "%WAN-W-ERR: down"), Pair(7, "%WAN-D-DBG: trace"),
                                  Pair(4, "%WAN-W-ERR: down (59 more held back)"),
                                  Pair(7, "%WAN-D-DBG: trace (59 more held back)")));
}

// It reads the configuration, where every line that repeats a fault has its message.
TEST_F(SyslogTest, MessagesOfTheMainThreadAreNeverHeldBack) {
  write_flags("34 3\n");
  for (int i = 0; i < 3; ++i) {
    LB_WARNING("Illegal rule number: 0");
    LB_DEBUG("trace");
  }
  const auto warning = Pair(4, "%WAN-W-WARN: Illegal rule number: 0");
  const auto debug = Pair(7, "%WAN-D-DBG: trace");
  EXPECT_THAT(sent(), ElementsAre(warning, debug, warning, debug, warning, debug));
}

// Nor do they count as what another thread repeats.
TEST_F(SyslogTest, MessagesOfTheMainThreadHoldBackNoOthers) {
  LB_ERROR("down");
  in_a_thread([] { LB_ERROR("down"); });
  EXPECT_THAT(sent(), SizeIs(2));
}

TEST_F(SyslogTest, CountIsToldAtTheNextLookWithoutAMessage) {
  in_a_thread([] {
    LB_ERROR("lost");
    LB_ERROR("lost");
  });
  virtual_clock::advance(61s);
  SYSLOG_flag_get(34, 3);
  EXPECT_THAT(sent(), ElementsAre(Pair(4, "%WAN-W-ERR: lost"),
                                  Pair(4, "%WAN-W-ERR: lost (1 more held back)")));
}

TEST_F(SyslogTest, StateChangesAlwaysPass) {
  in_a_thread([] {
    for (int i = 0; i < 3; ++i) LB_INSTANCE("changed");
  });
  EXPECT_THAT(sent(), SizeIs(3));
}

TEST_F(SyslogTest, FlagsMayLetAllRepeatsPass) {
  write_flags("repeats all\n");
  in_a_thread([] {
    for (int i = 0; i < 3; ++i) LB_ERROR("down");
  });
  EXPECT_THAT(sent(), SizeIs(3));
}

TEST_F(SyslogTest, LongTextIsCut) {
  LB_INSTANCE("%s", std::string(1'000'000, 'x').c_str());
  const auto sent = this->sent();
  ASSERT_THAT(sent, SizeIs(1));
  EXPECT_EQ(sent[0].second.size(), 8000u);
  EXPECT_THAT(sent[0].second, EndsWith("xxxx ..."));
}

TEST_F(SyslogTest, LongestTextIsNotCut) {
  SYSLOG_message(6, "%s", std::string(7999, 'x').c_str());
  EXPECT_THAT(sent(), ElementsAre(Pair(6, std::string(7999, 'x'))));
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
  EXPECT_THAT(sent(), SizeIs(testing::Ge(801u)));
}
