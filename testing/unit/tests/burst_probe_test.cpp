// A burst: its requests, the waiting for replies, its figures and its outcome.
#include <unistd.h>

#include <random>

#include "support/burst_fixture.h"

using testing::Contains;
using testing::ElementsAre;
using testing::ElementsAreArray;
using testing::IsEmpty;
using testing::Not;
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

// What a hostile neighbour sends must not push replies out.
TEST_F(BurstProbeTest, EnlargesTheQueueThatItReads) {
  const int fd = sockets()->recv_socket.get();
  EXPECT_THAT(network_.option_names(fd), Not(Contains(SO_RCVBUFFORCE)));
  answer_all(20ms);
  send();
  EXPECT_THAT(network_.option_names(fd), Contains(SO_RCVBUFFORCE));
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

// Round-trip times.

TEST_F(BurstProbeTest, PartsOfAMillisecondCountUpwards) {
  // What is left of the limit is cut, so that the time gone counts as more.
  answer_ = [this](size_t, const Bytes& request) { arrive(20ms + 1ns, reply_to(request)); };
  send();
  expect_measured(0, 21, 0);
}

TEST_F(BurstProbeTest, ReplyAtTheEndOfTheLimitCounts) {
  test_.set_number(TestKeyword::kRtt, 1001);
  answer_all(1000ms);
  send();
  expect_succeeded();
  expect_measured(0, 1000, 0);
}

TEST_F(BurstProbeTest, ReplyAfterTheLimitIsLost) {
  answer_ = [this](size_t, const Bytes& request) { arrive(1000ms + 1ns, reply_to(request)); };
  send();
  expect_failed();
  EXPECT_THAT(network_.sent, SizeIs(1));
}

TEST_F(BurstProbeTest, TimeoutIsConfigured) {
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

TEST_F(BurstProbeTest, TimeoutWithAFractionIsRefused) {
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

TEST_F(BurstProbeTest, TimeoutOfNothingTakesWhatIsThere) {
  test_.set_number(TestKeyword::kTimeout, 0);
  answer_all(0ms);
  send();
  expect_succeeded();
  expect_measured(0, 0, 0);
}

TEST_F(BurstProbeTest, FailedWaitIsAMissingReply) {
  answer_all(10ms);
  Fault fault("ppoll", EINTR, 1, 1);  // the second wait
  send();
  expect_failed();
  EXPECT_THAT(network_.sent, SizeIs(10));
  expect_measured(10, 109, 891);
}

// Replies.

TEST_F(BurstProbeTest, OtherPacketsAreSkippedAndTheWaitGoesOnWithTheRest) {
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
    arrive(145ms, {});                                   // taken by the receiver thread
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

TEST_F(BurstProbeTest, OtherPacketsDoNotLengthenTheWait) {
  answer_ = [this](size_t, const Bytes&) {
    for (int i = 1; i <= 30; ++i) arrive(100ms * i, Bytes{1, 2, 3});
  };
  const timespec start = monotonic_now();
  send();
  expect_failed();
  EXPECT_EQ(elapsed_ms(start), 1000);
}

TEST_F(BurstProbeTest, SenderIsComparedByteForByte) {
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

TEST_F(BurstProbeTest, TypeOfAReplyIsNotLookedAt) {
  answer_ = [this](size_t, const Bytes& request) {
    Bytes packet = reply_to(request);
    packet[20] = 3;
    arrive(10ms, packet);
  };
  send();
  expect_succeeded();
}

// A late reply is not taken for that of the next request.
TEST_F(BurstProbeTest, LateReplyIsNotTheNextOnes) {
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

TEST_F(BurstProbeTest, RandomPacketsAreNoReplies) {
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

TEST_F(BurstProbeTest, ReadsTheReceivingSocketOfTheInterface) {
  answer_all(1ms);
  send();
  EXPECT_EQ(last_wait_fd_, sockets()->recv_socket.get());
}

TEST_F(BurstProbeTest, WithoutAReceivingSocketNothingIsHeard) {
  const std::string ifname = unused_name("lb");
  LBInterface interface(ifname, false);
  LBTestPING test;
  test.set_target(kTarget);
  {
    Fault fault("socket", EMFILE, 2, 1);
    test.init(interface);
  }
  test.send(interface, worker_);
  EXPECT_EQ(test.report().result, 2);
  EXPECT_EQ(call_count("ppoll"), 0);
}

// Between bursts the socket collects every ICMP packet of the host.
TEST_F(BurstProbeTest, StartsWithAnEmptyQueue) {
  answer_all(20ms);
  const auto socket = network_.socket_of(sockets()->recv_socket.get());
  for (uint8_t i = 1; i <= 5; ++i) FakeNetwork::deliver(socket, {i, i, i});
  send();
  char byte;
  EXPECT_EQ(wrapped::recv.real(socket.fd, &byte, 1, MSG_DONTWAIT), -1);
  expect_succeeded();
}

TEST_F(BurstProbeTest, FloodDoesNotHoldItsStart) {
  answer_all(20ms);
  CallHook hook(wrapped::recv, [](int, void*, size_t, int flags) {
    EXPECT_EQ(flags, MSG_DONTWAIT);
    return ssize_t{1};
  });
  send();
  EXPECT_LE(call_count("recv"), 10000);
  expect_succeeded();
}

// The bound on packets that come after the wait must not count those that come within it.
TEST_F(BurstProbeTest, ReplyBehindAFloodWithinTheWaitCounts) {
  test_.set_number(TestKeyword::kCount, 1);
  answer_ = [this](size_t, const Bytes& request) {
    for (int i = 0; i < 10001; ++i) arrive(10ms, Bytes{1, 2, 3});
    arrive(20ms, reply_to(request));
  };
  send();
  expect_succeeded();
  expect_measured(0, 20, 0);
}

TEST_F(BurstProbeTest, FloodDoesNotHoldAWaitThatIsOver) {
  test_.set_number(TestKeyword::kCount, 1);
  answer_ = [this](size_t, const Bytes& request) {
    for (int i = 0; i < 10001; ++i) arrive(1000ms, Bytes{1, 2, 3});
    arrive(1000ms, reply_to(request));
  };
  send();
  expect_failed();
  EXPECT_THAT(arrivals_, Not(IsEmpty()));
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
