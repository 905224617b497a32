// The arithmetic of a burst: figures, limits, the period.
#include "tests/burst_judge.h"

#include <gtest/gtest.h>

#include <limits>

namespace {

// The figures of a burst of ten, with a round-trip time each; -1 is a reply that did not come
// within a limit of 1000 ms.
BurstMeasurement measure(std::initializer_list<int64_t> times) {
  BurstTally tally;
  for (const int64_t time : times) {
    tally.add_sent();
    if (time < 0) {
      tally.add_lost(1000);
    } else {
      tally.add_reply(time);
    }
  }
  return tally.measure(tally.sent());
}

void expect_measured(const BurstMeasurement& measured, int32_t loss, int32_t rtt, int32_t jitter) {
  EXPECT_EQ(measured.loss, loss);
  EXPECT_EQ(measured.rtt, rtt);
  EXPECT_EQ(measured.jitter, jitter);
}

}  // namespace

TEST(BurstJudgeTest, DefaultLimits) {
  const BurstLimits limits;
  EXPECT_EQ(limits.jitter, 50);
  EXPECT_EQ(limits.loss, 1);
  EXPECT_EQ(limits.rtt, 200);
}

TEST(BurstJudgeTest, AllRepliesAlike) {
  const auto measured = measure({20, 20, 20, 20, 20, 20, 20, 20, 20, 20});
  expect_measured(measured, 0, 20, 0);
  EXPECT_TRUE(is_acceptable(measured, {}));
}

TEST(BurstJudgeTest, OneReplyLost) {
  const auto measured = measure({10, -1, 10, 10, 10, 10, 10, 10, 10, 10});
  expect_measured(measured, 10, 109, 891);
  EXPECT_FALSE(is_acceptable(measured, {}));
}

TEST(BurstJudgeTest, MeanIsCutToWholeMilliseconds) { expect_measured(measure({1, 1, 2}), 0, 1, 1); }

TEST(BurstJudgeTest, JitterIsWorstLessMean) { expect_measured(measure({10, 20, 60}), 0, 30, 30); }

TEST(BurstJudgeTest, WorstTimeIsTheGreatest) { expect_measured(measure({60, 10, 20}), 0, 30, 30); }

TEST(BurstJudgeTest, LossIsRoundedToNearest) {
  expect_measured(measure({0, 0, -1}), 33, 333, 667);   // 66.67 % received, rounded to 67
  expect_measured(measure({0, -1, -1}), 67, 666, 334);  // 33.33 % received, rounded to 33
}

TEST(BurstJudgeTest, HalvesAreRoundedToEven) {
  BurstTally tally;  // 199 of 200: 99.5 % received is 100, 197 of 200: 98.5 % is 98
  for (int i = 0; i < 200; ++i) tally.add_sent();
  for (int i = 0; i < 197; ++i) tally.add_reply(0);
  EXPECT_EQ(tally.measure(200).loss, 2);
  tally.add_reply(0);
  tally.add_reply(0);
  EXPECT_EQ(tally.measure(200).loss, 0);
}

TEST(BurstJudgeTest, AllLostButTheFirst) { expect_measured(measure({0, -1}), 50, 500, 500); }

TEST(BurstJudgeTest, LossFailsAtItsLimit) {
  EXPECT_TRUE(is_acceptable({.jitter = 0, .loss = 9, .rtt = 0}, {.loss = 10}));
  EXPECT_FALSE(is_acceptable({.jitter = 0, .loss = 10, .rtt = 0}, {.loss = 10}));
  EXPECT_FALSE(is_acceptable({.jitter = 0, .loss = 11, .rtt = 0}, {.loss = 10}));
}

TEST(BurstJudgeTest, LossLimitOfNothingFailsEveryBurst) {
  EXPECT_FALSE(is_acceptable({.jitter = 0, .loss = 0, .rtt = 0}, {.loss = 0}));
}

TEST(BurstJudgeTest, RttFailsAtItsLimit) {
  EXPECT_TRUE(is_acceptable({.jitter = 0, .loss = 0, .rtt = 199}, {}));
  EXPECT_FALSE(is_acceptable({.jitter = 0, .loss = 0, .rtt = 200}, {}));
}

TEST(BurstJudgeTest, JitterFailsAtItsLimit) {
  EXPECT_TRUE(is_acceptable({.jitter = 49, .loss = 0, .rtt = 0}, {}));
  EXPECT_FALSE(is_acceptable({.jitter = 50, .loss = 0, .rtt = 0}, {}));
}

TEST(BurstJudgeTest, AnyLimitAloneFails) {
  const BurstLimits wide{.jitter = 1000, .loss = 101, .rtt = 1000};
  const BurstMeasurement measured{.jitter = 100, .loss = 50, .rtt = 100};
  EXPECT_TRUE(is_acceptable(measured, wide));
  EXPECT_FALSE(is_acceptable(measured, {.jitter = 100, .loss = 101, .rtt = 1000}));
  EXPECT_FALSE(is_acceptable(measured, {.jitter = 1000, .loss = 50, .rtt = 1000}));
  EXPECT_FALSE(is_acceptable(measured, {.jitter = 1000, .loss = 101, .rtt = 100}));
}

TEST(BurstJudgeTest, NegativeLimitsFail) {
  EXPECT_FALSE(is_acceptable({}, {.jitter = -1, .loss = 1, .rtt = 1}));
}

TEST(BurstJudgeWaitTest, WholeSecondsAreValid) {
  EXPECT_TRUE((ReplyWait{1, 0}).is_valid());
  EXPECT_TRUE((ReplyWait{0, 0}).is_valid());
  EXPECT_EQ((ReplyWait{2, 0}).microseconds(), 2000000);
  EXPECT_EQ((ReplyWait{2, 0}).limit(), 2000);
}

TEST(BurstJudgeWaitTest, SecondFigureOfAMillionOrMoreIsRefused) {
  EXPECT_TRUE((ReplyWait{1, 999999}).is_valid());
  EXPECT_FALSE((ReplyWait{1, 1000000}).is_valid());
  EXPECT_FALSE((ReplyWait{1, 500000000}).is_valid());
  EXPECT_FALSE((ReplyWait{-1, 0}).is_valid());
  EXPECT_FALSE((ReplyWait{1, -1}).is_valid());
}

TEST(BurstJudgeWaitTest, LimitCountsNanoseconds) {
  EXPECT_EQ((ReplyWait{1, 500000000}).limit(), 1500);
}

TEST(BurstJudgePeriodTest, FirstBurstIsDue) { EXPECT_FALSE(is_within_period(0, 5, 240)); }

TEST(BurstJudgePeriodTest, CountsFromTheLastStart) {
  EXPECT_TRUE(is_within_period(1000, 1000, 240));
  EXPECT_TRUE(is_within_period(1000, 101000, 240));
  EXPECT_TRUE(is_within_period(1000, 240999, 240));
  EXPECT_FALSE(is_within_period(1000, 241000, 240));
  EXPECT_FALSE(is_within_period(1000, 241001, 240));
}

TEST(BurstJudgePeriodTest, NoPeriodIsAlwaysOver) {
  EXPECT_FALSE(is_within_period(1000, 1000, 0));
  EXPECT_FALSE(is_within_period(1000, 1000, -1));
}

TEST(BurstJudgePeriodTest, MillisecondsWrapWithoutNotice) {
  const int64_t before = (int64_t{1} << 32) - 1000;  // a second before 2^32 ms of uptime
  EXPECT_TRUE(is_within_period(before, before + 100000, 240));
  EXPECT_FALSE(is_within_period(before, before + 240000, 240));
}

TEST(BurstJudgePeriodTest, ProductWrapsInThirtyTwoBits) {
  // 4294968 s are 704 ms more than 2^32 ms.
  EXPECT_TRUE(is_within_period(1000, 1703, 4294968));
  EXPECT_FALSE(is_within_period(1000, 1704, 4294968));
}
