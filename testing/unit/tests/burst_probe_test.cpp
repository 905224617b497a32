// A burst: its requests, its figures and its outcome.
#include <unistd.h>

#include "support/burst_fixture.h"

using testing::IsEmpty;
using testing::SizeIs;
using namespace std::chrono_literals;

namespace {

using BurstProbeTest = BurstFixture;

uint16_t sequence_of(const FakeNetwork::Bytes& request) {
  return static_cast<uint16_t>(request[6] << 8 | request[7]);
}

}  // namespace

TEST_F(BurstProbeTest, RequestsCountFromZero) {
  answer_all(20ms);
  const auto key = static_cast<uint32_t>((probes().next_key() + 1) % 32767);
  send();
  ASSERT_THAT(network_.sent, SizeIs(10));
  for (size_t i = 0; i < 10; ++i) {
    const auto& request = network_.sent[i].bytes;
    ASSERT_EQ(request.size(), 24u);
    EXPECT_EQ(request[0], 8);  // echo request, code 0
    EXPECT_EQ(request[1], 0);
    EXPECT_EQ(request[4] << 8 | request[5], getpid() & 0xffff);
    EXPECT_EQ(sequence_of(request), i);
    EXPECT_EQ(word_at(request, 8), key);
    for (size_t byte = 12; byte < 24; ++byte) EXPECT_EQ(request[byte], 0);
    uint32_t sum = 0;  // with the checksum, words add up to nothing
    for (size_t byte = 0; byte < 12; byte += 2) sum += request[byte] * 256u + request[byte + 1];
    EXPECT_EQ(sum % 0xffff, 0u);
    EXPECT_EQ(network_.sent[i].fd, sockets()->send_socket.get());
    EXPECT_EQ(network_.sent[i].address.size(), sizeof(sockaddr_in));
  }
  EXPECT_EQ(probes().next_key(), static_cast<int32_t>((key + 1) % 32767));
}

TEST_F(BurstProbeTest, UsesNoRecordInFlight) {
  answer_all(20ms);
  const size_t before = probes().size();
  size_t within = 0;
  network_.on_frame = [&, next = network_.on_frame](const Bytes& request) {
    within = std::max(within, probes().size());
    next(request);
  };
  send();
  EXPECT_EQ(within, before);
  EXPECT_EQ(call_count("pthread_create"), 0);
}

TEST_F(BurstProbeTest, AllRepliesAtTwentyMilliseconds) {
  answer_all(20ms);
  send();
  expect_succeeded();
  expect_measured(0, 20, 0);
  EXPECT_THAT(log_records(), IsEmpty());
  const auto report = measured();
  EXPECT_EQ(report.jitter, 50);
  EXPECT_EQ(report.loss, 1);
  EXPECT_EQ(report.rtt, 200);
  EXPECT_EQ(test_.get_description(), std::string("ping extended\tTarget: ") + kTarget);
}

TEST_F(BurstProbeTest, NextRequestFollowsTheReplyAtOnce) {
  answer_all(20ms);
  const timespec start = monotonic_now();
  send();
  EXPECT_EQ(elapsed_ms(start), 200);
}

TEST_F(BurstProbeTest, FirstReplyMissingFailsAtOnce) {
  answer_all(10ms, {0});
  const timespec start = monotonic_now();
  send();
  expect_failed();
  EXPECT_THAT(network_.sent, SizeIs(1));
  EXPECT_EQ(elapsed_ms(start), 1000);
  expect_measured(0, 0, 0);  // nothing was measured
}

TEST_F(BurstProbeTest, SecondReplyMissing) {
  answer_all(10ms, {1});
  const timespec start = monotonic_now();
  send();
  expect_failed();
  EXPECT_THAT(network_.sent, SizeIs(10));
  EXPECT_EQ(elapsed_ms(start), 9 * 10 + 1000);
  expect_measured(10, 109, 891);
}

TEST_F(BurstProbeTest, LastReplyMissing) {
  answer_all(10ms, {9});
  send();
  expect_failed();
  expect_measured(10, 109, 891);
}

TEST_F(BurstProbeTest, LossWithinTheLimitIsAccepted) {
  test_.set_number(TestKeyword::kLoss, 11);
  test_.set_number(TestKeyword::kJitter, 892);
  answer_all(10ms, {1});
  send();
  expect_succeeded();
}

TEST_F(BurstProbeTest, LimitsAreReachedAtEquality) {
  const auto run = [&](uint32_t loss, uint32_t rtt, uint32_t jitter) {
    test_.set_number(TestKeyword::kLoss, loss);
    test_.set_number(TestKeyword::kRtt, rtt);
    test_.set_number(TestKeyword::kJitter, jitter);
    test_.set_number(TestKeyword::kPeriod, 0);
    size_t index = 0;
    answer_ = [&](size_t, const Bytes& request) {
      const size_t now = index++;
      if (now != 1) arrive(10ms, reply_to(request));
    };
    send();
    return test_.report().result;
  };
  EXPECT_EQ(run(11, 110, 892), 1);  // measured 10, 109, 891
  EXPECT_EQ(run(10, 110, 892), 2);
  EXPECT_EQ(run(11, 109, 892), 2);
  EXPECT_EQ(run(11, 110, 891), 2);
  EXPECT_EQ(run(11, 110, 892), 1);
}

TEST_F(BurstProbeTest, LossLimitOfNothingFailsEveryBurst) {
  test_.set_number(TestKeyword::kLoss, 0);
  answer_all(20ms);
  send();
  expect_failed();
  expect_measured(0, 20, 0);
}

TEST_F(BurstProbeTest, CountIsConfigured) {
  test_.set_number(TestKeyword::kCount, 3);
  answer_all(20ms);
  send();
  EXPECT_THAT(network_.sent, SizeIs(3));
  expect_succeeded();
}

TEST_F(BurstProbeTest, NoRequestsAreNoSuccess) {
  for (const uint32_t count : {0u, 4294967295u}) {
    test_.set_number(TestKeyword::kCount, count);
    test_.set_number(TestKeyword::kPeriod, 0);
    send();
    EXPECT_EQ(test_.report().result, 2);
  }
  EXPECT_THAT(network_.sent, IsEmpty());
}

TEST_F(BurstProbeTest, SequenceHasSixteenBits) {
  test_.set_number(TestKeyword::kCount, 65538);
  answer_all(0ms);
  send();
  ASSERT_THAT(network_.sent, SizeIs(65538));
  EXPECT_EQ(sequence_of(network_.sent[65535].bytes), 65535);
  EXPECT_EQ(sequence_of(network_.sent[65536].bytes), 0);
  EXPECT_EQ(sequence_of(network_.sent[65537].bytes), 1);
  expect_succeeded();
}

TEST_F(BurstProbeTest, OutcomeIsReportedOncePerBurst) {
  answer_all(20ms);
  test_.set_number(TestKeyword::kPeriod, 1);
  for (int burst = 1; burst <= 2; ++burst) {
    send();
    EXPECT_EQ(state().success_counts.at(kTarget), burst);
    virtual_clock::advance(1s);
  }
}
