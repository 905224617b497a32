#include "platform/linux/repeat_limiter.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

using testing::ElementsAre;
using testing::IsEmpty;

namespace {

class RepeatLimiterTest : public testing::Test {
 protected:
  std::vector<std::string> admit(const std::string& text, time_t now) {
    return texts(limiter_.admit({4, text}, {now, 0}));
  }
  std::vector<std::string> due(time_t now) { return texts(limiter_.due({now, 0})); }

  static std::vector<std::string> texts(const std::vector<LogMessage>& messages) {
    std::vector<std::string> result;
    for (const LogMessage& message : messages) result.push_back(message.text);
    return result;
  }

  RepeatLimiter limiter_;
};

}  // namespace

TEST_F(RepeatLimiterTest, TextPassesOnceAMinute) {
  EXPECT_THAT(admit("a", 0), ElementsAre("a"));
  EXPECT_THAT(admit("a", 1), IsEmpty());
  EXPECT_THAT(admit("a", 59), IsEmpty());
  EXPECT_THAT(admit("a", 60), ElementsAre("a (2 more held back)"));
  EXPECT_THAT(admit("a", 61), IsEmpty());
  EXPECT_THAT(admit("a", 119), IsEmpty());
  EXPECT_THAT(admit("a", 120), ElementsAre("a (2 more held back)"));
}

TEST_F(RepeatLimiterTest, RareTextPassesAlways) {
  EXPECT_THAT(admit("a", 0), ElementsAre("a"));
  EXPECT_THAT(admit("a", 60), ElementsAre("a"));
  EXPECT_THAT(admit("a", 150), ElementsAre("a"));
}

TEST_F(RepeatLimiterTest, TextsAreLimitedOneByOne) {
  EXPECT_THAT(admit("a", 0), ElementsAre("a"));
  EXPECT_THAT(admit("b", 0), ElementsAre("b"));
  EXPECT_THAT(admit("a", 1), IsEmpty());
  EXPECT_THAT(admit("c", 1), ElementsAre("c"));
}

TEST_F(RepeatLimiterTest, PriorityIsKept) {
  limiter_.admit({7, "a"}, {0, 0});
  limiter_.admit({7, "a"}, {1, 0});
  const std::vector<LogMessage> sent = limiter_.due({60, 0});
  ASSERT_EQ(sent.size(), 1u);
  EXPECT_EQ(sent[0].priority, 7);
}

TEST_F(RepeatLimiterTest, CountIsToldWhenTheTextStops) {
  admit("a", 0);
  admit("a", 1);
  admit("a", 2);
  EXPECT_THAT(due(59), IsEmpty());
  EXPECT_THAT(due(60), ElementsAre("a (2 more held back)"));
  EXPECT_THAT(due(200), IsEmpty());
}

TEST_F(RepeatLimiterTest, CountComesWithAnotherText) {
  admit("a", 0);
  admit("a", 1);
  EXPECT_THAT(admit("b", 61), ElementsAre("a (1 more held back)", "b"));
}

TEST_F(RepeatLimiterTest, ToldCountStartsTheNextMinute) {
  admit("a", 0);
  admit("a", 1);
  EXPECT_THAT(due(60), ElementsAre("a (1 more held back)"));
  EXPECT_THAT(admit("a", 61), IsEmpty());
  EXPECT_THAT(due(120), ElementsAre("a (1 more held back)"));
}

TEST_F(RepeatLimiterTest, FractionsOfASecondCount) {
  limiter_.admit({4, "a"}, {0, 500});
  EXPECT_THAT(limiter_.admit({4, "a"}, {60, 499}), IsEmpty());
  EXPECT_THAT(texts(limiter_.admit({4, "a"}, {60, 500})), ElementsAre("a (1 more held back)"));
}

TEST_F(RepeatLimiterTest, ForgetsTheOldestOfTooManyTexts) {
  admit("first", 0);
  admit("first", 0);
  for (size_t i = 0; i < RepeatLimiter::kMaxTexts - 1; ++i) {
    EXPECT_THAT(admit(std::to_string(i), 1), ElementsAre(std::to_string(i)));
  }
  EXPECT_THAT(admit("first", 2), IsEmpty());
  EXPECT_THAT(admit("one more", 2), ElementsAre("first (2 more held back)", "one more"));
  EXPECT_THAT(admit("first", 2), ElementsAre("first"));  // forgotten, and "0" with it by now
  EXPECT_THAT(admit("1", 2), IsEmpty());                 // still known
  EXPECT_THAT(admit("0", 2), ElementsAre("1 (1 more held back)", "0"));
}

TEST_F(RepeatLimiterTest, EndlessNewTextsPass) {
  for (int i = 0; i < 20000; ++i) {
    ASSERT_THAT(admit(std::to_string(i), i / 100), ElementsAre(std::to_string(i)));
  }
}
