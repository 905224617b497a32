// A burst's waiting for replies: how long, and what is one.
#include <random>

#include "support/burst_fixture.h"

using testing::IsEmpty;
using testing::Not;
using testing::SizeIs;
using namespace std::chrono_literals;

namespace {

using BurstProbeReplyTest = BurstFixture;

}  // namespace

// Round-trip times.

TEST_F(BurstProbeReplyTest, PartsOfAMillisecondCountUpwards) {
  // What is left of the limit is cut, so that the time gone counts as more.
  answer_ = [this](size_t, const Bytes& request) { arrive(20ms + 1ns, reply_to(request)); };
  send();
  expect_measured(0, 21, 0);
}

TEST_F(BurstProbeReplyTest, ReplyAtTheEndOfTheLimitCounts) {
  test_.set_number(TestKeyword::kRtt, 1001);
  answer_all(1000ms);
  send();
  expect_succeeded();
  expect_measured(0, 1000, 0);
}

TEST_F(BurstProbeReplyTest, ReplyAfterTheLimitIsLost) {
  answer_ = [this](size_t, const Bytes& request) { arrive(1000ms + 1ns, reply_to(request)); };
  send();
  expect_failed();
  EXPECT_THAT(network_.sent, SizeIs(1));
}

TEST_F(BurstProbeReplyTest, TimeoutIsConfigured) {
  test_.set_number(TestKeyword::kTimeout, 3000);
  test_.set_number(TestKeyword::kRtt, 5000);
  answer_all(2500ms);
  send();
  expect_succeeded();
  expect_measured(0, 2500, 0);
  ASSERT_FALSE(waits_.empty());
  EXPECT_EQ(waits_[0].tv_sec, 3);
  EXPECT_EQ(waits_[0].tv_nsec, 0);
}

TEST_F(BurstProbeReplyTest, TimeoutWithAFractionIsRefused) {
  for (const uint32_t timeout : {1500u, 1001u, 1u, 999u}) {
    test_.set_number(TestKeyword::kTimeout, timeout);
    test_.set_number(TestKeyword::kPeriod, 0);
    network_.sent.clear();
    answer_all(0ms);
    const timespec start = monotonic_now();
    send();
    EXPECT_EQ(test_.report().result, 2) << timeout;
    EXPECT_THAT(network_.sent, SizeIs(1)) << timeout;
    EXPECT_EQ(elapsed_ms(start), 0) << timeout;
    arrivals_.clear();
  }
  EXPECT_THAT(waits_, IsEmpty());
}

TEST_F(BurstProbeReplyTest, TimeoutOfNothingTakesWhatIsThere) {
  test_.set_number(TestKeyword::kTimeout, 0);
  answer_all(0ms);
  send();
  expect_succeeded();
  expect_measured(0, 0, 0);
}

TEST_F(BurstProbeReplyTest, FailedWaitIsAMissingReply) {
  answer_all(10ms);
  Fault fault("ppoll", EINTR, 1, 1);  // the second wait
  send();
  expect_failed();
  EXPECT_THAT(network_.sent, SizeIs(10));
  expect_measured(10, 109, 891);
}

// Replies.

TEST_F(BurstProbeReplyTest, OtherPacketsAreSkippedAndTheWaitGoesOnWithTheRest) {
  answer_ = [this](size_t, const Bytes& request) {
    const Bytes reply = reply_to(request);
    arrive(100ms, reply, "198.51.100.8");  // from elsewhere
    Bytes other_sequence = reply;
    other_sequence[27] ^= 1;
    arrive(110ms, other_sequence);
    Bytes other_key = reply;
    other_key[31] ^= 1;
    arrive(120ms, other_key);
    Bytes wide_key = reply;  // the same low 16 bits
    wide_key[28] = 1;
    arrive(130ms, wide_key);
    arrive(140ms, {reply.begin(), reply.begin() + 31});  // cut short
    arrive(145ms, {});                                   // its checksum was wrong
    arrive(150ms, reply);
  };
  send();
  expect_succeeded();
  expect_measured(0, 150, 0);
  ASSERT_GE(waits_.size(), 7u);
  EXPECT_EQ(waits_[0].tv_sec, 1);
  EXPECT_EQ(waits_[1].tv_nsec, 900'000'000);
  EXPECT_EQ(waits_[6].tv_nsec, 855'000'000);
}

TEST_F(BurstProbeReplyTest, OtherPacketsDoNotLengthenTheWait) {
  answer_ = [this](size_t, const Bytes&) {
    for (int i = 1; i <= 30; ++i) arrive(100ms * i, Bytes{1, 2, 3});
  };
  const timespec start = monotonic_now();
  send();
  expect_failed();
  EXPECT_EQ(elapsed_ms(start), 1000);
}

TEST_F(BurstProbeReplyTest, SenderIsComparedByteForByte) {
  answer_ = [this](size_t, const Bytes& request) {
    arrive(10ms, reply_to(request));
    arrivals_.back().sender.sin_port = htons(1);
    arrive(11ms, reply_to(request));
    arrivals_.back().sender.sin_family = AF_INET6;
    arrive(12ms, reply_to(request));
    arrivals_.back().sender.sin_zero[7] = 1;
  };
  send();
  expect_failed();
  EXPECT_THAT(arrivals_, IsEmpty());
}

TEST_F(BurstProbeReplyTest, TypeOfAReplyIsNotLookedAt) {
  answer_ = [this](size_t, const Bytes& request) {
    Bytes packet = reply_to(request);
    packet[20] = 3;
    arrive(10ms, packet);
  };
  send();
  expect_succeeded();
}

// A late reply is not taken for that of the next request.
TEST_F(BurstProbeReplyTest, LateReplyIsNotTheNextOnes) {
  answer_ = [this](size_t index, const Bytes& request) {
    const Bytes reply = reply_to(request);
    if (index == 1) {
      arrive(1005ms, reply);
    } else if (index != 2) {
      arrive(10ms, reply);
    }
  };
  send();
  expect_failed();
  expect_measured(20, 208, 792);  // two lost: 8 * 10 + 2 * 1000
}

TEST_F(BurstProbeReplyTest, RandomPacketsAreNoReplies) {
  std::mt19937 random(34);
  answer_ = [&](size_t, const Bytes& request) {
    for (int i = 1; i <= 2000; ++i) {
      Bytes packet(1 + random() % 80);
      for (uint8_t& byte : packet) byte = static_cast<uint8_t>(random());
      if (packet.size() >= 32 &&
          std::equal(request.begin() + 6, request.begin() + 12, packet.begin() + 26)) {
        continue;
      }
      arrive(std::chrono::microseconds(100 * i), packet);
    }
  };
  send();
  expect_failed();
  EXPECT_THAT(network_.sent, SizeIs(1));
  EXPECT_THAT(arrivals_, IsEmpty());
}

// The bound on packets that come after the wait must not count those that come within it.
TEST_F(BurstProbeReplyTest, ReplyBehindAFloodWithinTheWaitCounts) {
  test_.set_number(TestKeyword::kCount, 1);
  answer_ = [this](size_t, const Bytes& request) {
    for (int i = 0; i < 10001; ++i) arrive(10ms, Bytes{1, 2, 3});
    arrive(20ms, reply_to(request));
  };
  send();
  expect_succeeded();
  expect_measured(0, 20, 0);
}

TEST_F(BurstProbeReplyTest, FloodDoesNotHoldAWaitThatIsOver) {
  test_.set_number(TestKeyword::kCount, 1);
  answer_ = [this](size_t, const Bytes& request) {
    for (int i = 0; i < 10001; ++i) arrive(1000ms, Bytes{1, 2, 3});
    arrive(1000ms, reply_to(request));
  };
  send();
  expect_failed();
  EXPECT_THAT(arrivals_, Not(IsEmpty()));
}
