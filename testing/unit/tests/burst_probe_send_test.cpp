// When a burst is due, and where it goes.
#include <algorithm>

#include "support/burst_fixture.h"

using testing::ElementsAre;
using testing::IsEmpty;
using testing::Pair;
using testing::SizeIs;
using namespace std::chrono_literals;

namespace {

class BurstProbeSendTest : public BurstFixture {
 protected:
  BurstProbeSendTest() {
    set_log_flag(3, true);
    answer_all(1ms);
  }

  void learn_next_hop(const char* address) {
    MutexLock lock(interface_.mutex);
    interface_.state.nexthop_address = address;
  }
};

class BurstProbeSendFrameTest : public BurstProbeSendTest {
 protected:
  BurstProbeSendFrameTest() {
    network_.no_arp = false;
    interface_.source_address = "192.0.2.1";
  }
};

}  // namespace

// The period.

TEST_F(BurstProbeSendTest, PeriodIsFourMinutesFromABurstsStart) {
  answer_all(100ms);  // a burst takes a second
  send();
  EXPECT_THAT(network_.sent, SizeIs(10));
  virtual_clock::advance(100s);
  send();
  EXPECT_THAT(network_.sent, SizeIs(10));
  EXPECT_EQ(state().success_counts.at(kTarget), 1);  // and nothing was reported
  virtual_clock::advance(240s - 1s - 100s - 1ms);
  send();
  EXPECT_THAT(network_.sent, SizeIs(10));
  virtual_clock::advance(1ms);
  send();
  EXPECT_THAT(network_.sent, SizeIs(20));
}

TEST_F(BurstProbeSendTest, PeriodIsConfigured) {
  test_.set_number(TestKeyword::kPeriod, 3);
  virtual_clock::set_monotonic({50, 999000});  // counts as 50.000
  send();
  virtual_clock::set_monotonic({52, 999999999});
  send();
  EXPECT_THAT(network_.sent, SizeIs(10));
  virtual_clock::set_monotonic({53, 0});
  send();
  EXPECT_THAT(network_.sent, SizeIs(20));
}

TEST_F(BurstProbeSendTest, FailedBurstIsNotRepeatedWithinItsPeriod) {
  answer_ = nullptr;
  send();
  expect_failed();
  EXPECT_THAT(network_.sent, SizeIs(1));
  virtual_clock::advance(239s - 1s);
  send();
  EXPECT_THAT(network_.sent, SizeIs(1));
  expect_failed();
  virtual_clock::advance(1s);
  send();
  EXPECT_THAT(network_.sent, SizeIs(2));
}

TEST_F(BurstProbeSendTest, PeriodRunsAlsoWhereThereWasNoTarget) {
  interface_.nexthop = "dhcp";
  test_.set_target("");
  send();
  learn_next_hop(kTarget);
  virtual_clock::advance(239s);
  send();
  EXPECT_THAT(network_.sent, IsEmpty());
  virtual_clock::advance(1s);
  send();
  EXPECT_THAT(network_.sent, SizeIs(10));
}

TEST_F(BurstProbeSendTest, SkippedPeriodDrawsNoKeyAndKeepsTheDescription) {
  send();
  const int32_t key = probes().next_key();
  send();
  EXPECT_EQ(probes().next_key(), (key + 1) % 32767);
}

// Target and gateway.

TEST_F(BurstProbeSendTest, GatewayIsTheTargetWhereNoneIsConfigured) {
  test_.set_target("");
  interface_.nexthop = kTarget;
  int32_t result_at_first_request = 1;
  network_.on_frame = [&, next = network_.on_frame](const Bytes& request) {
    result_at_first_request = std::min(result_at_first_request, state().target_results.at(kTarget));
    next(request);
  };
  send();
  EXPECT_EQ(result_at_first_request, -1);
  EXPECT_EQ(test_.report().target, kTarget);
  EXPECT_EQ(test_.get_description(), std::string("ping extended\tTarget: ") + kTarget);
  EXPECT_EQ(test_.report().result, 1);
}

TEST_F(BurstProbeSendTest, NothingToProbe) {
  test_.set_target("");
  interface_.nexthop.clear();
  const int32_t key = probes().next_key();
  send();
  EXPECT_THAT(network_.sent, IsEmpty());
  EXPECT_EQ(test_.report().result, 0);
  EXPECT_THAT(state().failure_counts, IsEmpty());
  EXPECT_EQ(test_.get_description(), "ping extended\tTarget: ");
  EXPECT_EQ(probes().next_key(), (key + 1) % 32767);
}

TEST_F(BurstProbeSendTest, SharesTheKeysOfThePingTest) {
  const auto ping = make_test("198.51.100.9");
  network_.on_frame = nullptr;
  ping->send(interface_, worker_);
  const int32_t key = probe_to("198.51.100.9")->key;
  probes().erase(key);
  network_.sent.clear();
  send();
  ASSERT_THAT(network_.sent, SizeIs(1));
  EXPECT_EQ(word_at(network_.sent[0].bytes, 8), static_cast<uint32_t>((key + 1) % 32767));
}

TEST_F(BurstProbeSendTest, KeysWrap) {
  make_next_key(0);
  send();
  ASSERT_THAT(network_.sent, SizeIs(10));
  EXPECT_EQ(word_at(network_.sent[9].bytes, 8), 0u);
  expect_succeeded();
}

// The raw path.

TEST_F(BurstProbeSendTest, SocketIsBoundToTheInterface) {
  send();
  const auto option = std::find_if(network_.options.begin(), network_.options.end(),
                                   [](const auto& set) { return set.name == SO_BINDTODEVICE; });
  ASSERT_NE(option, network_.options.end());
  EXPECT_EQ(option->fd, sockets()->send_socket.get());
  EXPECT_STREQ(reinterpret_cast<const char*>(option->value.data()), ifname_.c_str());
}

TEST_F(BurstProbeSendTest, LaterRequestThatCannotBeSentFailsTheBurst) {
  Fault fault("sendto", ENOBUFS, 4, 1);
  send();
  expect_failed();
  EXPECT_THAT(network_.sent, SizeIs(4));
  EXPECT_THAT(log_records(), ElementsAre(LoggedDebug("wan_lb: error on sending icmp packet: 105")));
  expect_measured(0, 0, 0);
}

TEST_F(BurstProbeSendTest, RequestsNeverWaitForAQueue) {
  send();
  for (const auto& request : network_.sent) EXPECT_EQ(request.flags, MSG_DONTWAIT);
  virtual_clock::advance(240s);
  clear_log();
  Fault fault("sendto", EAGAIN, 0, 1);
  send();
  EXPECT_EQ(test_.report().result, kResultFailure);
  EXPECT_THAT(log_records(), ElementsAre(LoggedDebug("wan_lb: error on sending icmp packet: 11")));
}

TEST_F(BurstProbeSendTest, IncompleteBurstKeepsTheFiguresOfTheLastOne) {
  answer_all(20ms);
  send();
  expect_measured(0, 20, 0);
  virtual_clock::advance(240s);
  Fault fault("sendto", ENOBUFS, 4, 1);
  send();
  EXPECT_EQ(test_.report().result, 2);
  expect_measured(0, 20, 0);
}

// The link-level path.

TEST_F(BurstProbeSendFrameTest, FramesCountFromZero) {
  const auto key = static_cast<uint32_t>((probes().next_key() + 1) % 32767);
  send();
  expect_succeeded();
  ASSERT_THAT(network_.sent, SizeIs(10));
  for (size_t i = 0; i < 10; ++i) {
    const auto& frame = network_.sent[i].bytes;
    ASSERT_EQ(frame.size(), 46u);
    EXPECT_EQ(network_.sent[i].fd, sockets()->packet_socket.get());
    EXPECT_EQ(network_.sent[i].flags, MSG_DONTWAIT);
    EXPECT_EQ(word_at(frame, 0), 0x02112233u);   // the next hop's hardware address
    EXPECT_EQ(word_at(frame, 12), 0x08004500u);  // IPv4, 5 words
    EXPECT_EQ(word_at(frame, 16), 0x00200000u);  // 32 bytes
    EXPECT_EQ(word_at(frame, 26), 0xc0000201u);  // source
    EXPECT_EQ(word_at(frame, 30), 0xc6336407u);  // target
    EXPECT_EQ(frame[34], 8);
    EXPECT_EQ(frame[40] << 8 | frame[41], static_cast<int>(i));  // sequence
    EXPECT_EQ(word_at(frame, 42), key);
    uint32_t sum = 0;
    for (size_t byte = 34; byte < 46; byte += 2) sum += frame[byte] * 256u + frame[byte + 1];
    EXPECT_EQ(sum % 0xffff, 0u);
  }
}

TEST_F(BurstProbeSendFrameTest, OneTrackingRecordPerBurst) {
  size_t records_at_first_frame = 0;
  network_.on_frame = [&, next = network_.on_frame](const Bytes& frame) {
    if (network_.sent.size() == 1) records_at_first_frame = network_.conntrack_requests.size();
    next(frame);
  };
  send();
  EXPECT_EQ(records_at_first_frame, 1u);
  EXPECT_THAT(network_.conntrack_requests, SizeIs(1));
}

TEST_F(BurstProbeSendFrameTest, RefusedTrackingRecordStopsNothing) {
  network_.conntrack_answer = EEXIST;
  send();
  expect_succeeded();
  EXPECT_THAT(log_records(), ElementsAre(LoggedError("<create_conntrack_record> "
                                                     "mnl_socket_recvfrom for ip version 4: File "
                                                     "exists")));
}

TEST_F(BurstProbeSendFrameTest, LostRepliesAreJudgedAlike) {
  answer_all(10ms, {1});
  send();
  expect_failed();
  expect_measured(10, 109, 891);
}

TEST_F(BurstProbeSendFrameTest, OwnAddressWhereNoneIsConfigured) {
  interface_.source_address.clear();
  send();
  expect_succeeded();
  EXPECT_EQ(network_.ioctl_calls[SIOCGIFADDR], 1);
}

TEST_F(BurstProbeSendFrameTest, ResolvesTheGatewayForAFarTarget) {
  send();
  expect_succeeded();
  EXPECT_THAT(prober_->targets().snapshot(),
              ElementsAre(Pair(WatchedTargets::Target{EchoKit<Ipv4>::kGateway, ifname_}, true)));
}

TEST_F(BurstProbeSendFrameTest, GatewayLearntFromALeaseIsResolved) {
  interface_.nexthop = "dhcp";
  learn_next_hop(EchoKit<Ipv4>::kOtherGateway);
  send();
  expect_succeeded();
  EXPECT_THAT(
      prober_->targets().snapshot(),
      ElementsAre(Pair(WatchedTargets::Target{EchoKit<Ipv4>::kOtherGateway, ifname_}, true)));
}
