// Starting a probe: one at a time, its key and its record, the way out.
#include "support/echo_send_fixture.h"

using testing::ElementsAre;
using testing::IsEmpty;
using testing::Pair;
using namespace std::chrono_literals;

namespace {

template <class IpVersion>
class EchoProbeTest : public EchoSendFixture<IpVersion> {
 protected:
  uint32_t sent_key(size_t index) const {
    const auto& bytes = this->network_.sent.at(index).bytes;
    const bool framed = bytes.size() > 40;
    return word_at(
        bytes, framed ? EchoKit<IpVersion>::kFrameKeyOffset : EchoKit<IpVersion>::kRawKeyOffset);
  }

  // A slow machine must not use up the time in which the reply is to come.
  void expect_wait_from_entry() {
    timespec left{};
    this->network_.on_question = [] { virtual_clock::advance(700ms); };
    this->network_.on_frame = [&left](const FakeNetwork::Bytes&) { left = monotonic_now(); };
    const auto test = this->make_test();
    this->send(*test);
    this->network_.on_frame = nullptr;
    const auto entry = this->probe_to(EchoKit<IpVersion>::kTarget);
    ASSERT_TRUE(entry.has_value());
    EXPECT_GE(elapsed_milliseconds(entry->probe.sent_at, left), 700);
  }
};

}  // namespace

TYPED_TEST_SUITE(EchoProbeTest, BothFamilies, FamilyName);

TYPED_TEST(EchoProbeTest, EntersAndSendsAProbe) {
  using Kit = EchoKit<TypeParam>;
  const auto test = this->make_test();
  virtual_clock::set_monotonic({4000, 123456789});
  this->send(*test);
  ASSERT_EQ(this->network_.sent.size(), 1u);
  const auto entry = this->probe_to(Kit::kTarget);
  ASSERT_TRUE(entry.has_value());
  EXPECT_EQ(static_cast<uint32_t>(entry->key), this->sent_key(0));
  EXPECT_EQ(entry->probe.ifname, this->ifname_);
  EXPECT_EQ(entry->probe.state, -2);
  EXPECT_EQ(entry->probe.sent_at.tv_sec, 4000);
  EXPECT_EQ(entry->probe.sent_at.tv_nsec, 123456789);
  EXPECT_EQ(entry->probe.target, Kit::kTarget);
  EXPECT_EQ(test->get_description(), std::string("ping\tTarget: ") + Kit::kTarget);
  EXPECT_EQ(test->describe(), std::string("target: ") + Kit::kTarget + ", resp_time: 5000");
  EXPECT_EQ(test->report().result, 0);
  EXPECT_THAT(log_records(), IsEmpty());
}

// Also of what it takes to get away: the wait is the administrator's for all of it.
TYPED_TEST(EchoProbeTest, WaitBeginsWithTheEntry) {
  this->network_.no_arp = false;
  this->expect_wait_from_entry();
}

TYPED_TEST(EchoProbeTest, KeysCountOnAndWrap) {
  const auto test = this->make_test("");
  this->make_next_key(32765);
  for (const uint32_t expected : {32765u, 32766u, 0u, 1u}) {
    const size_t before = this->network_.sent.size();
    this->send(*test);
    ASSERT_EQ(this->network_.sent.size(), before + 1);
    EXPECT_EQ(this->sent_key(before), expected);
    this->probes().erase(static_cast<int32_t>(expected));
  }
}

TYPED_TEST(EchoProbeTest, SecondProbeWaitsForTheFirst) {
  const auto test = this->make_test();
  this->send(*test);
  const int32_t key = this->probe_to(EchoKit<TypeParam>::kTarget)->key;
  virtual_clock::advance(1h);
  this->send(*test);
  this->send(*test);
  EXPECT_EQ(this->network_.sent.size(), 1u);
  EXPECT_EQ(this->probes().next_key(), (key + 1) % 32767);  // and no key was drawn

  this->probes().erase(key);
  this->send(*test);
  EXPECT_EQ(this->network_.sent.size(), 2u);
}

TYPED_TEST(EchoProbeTest, AnsweredProbeStillBlocksUntilItIsCollected) {
  const auto test = this->make_test();
  this->send(*test);
  this->probes().mark_answered(this->probe_to(EchoKit<TypeParam>::kTarget)->key);
  this->send(*test);
  EXPECT_EQ(this->network_.sent.size(), 1u);
}

TYPED_TEST(EchoProbeTest, TestsOfOneTargetShareAProbe) {
  const auto test = this->make_test();
  const auto other = this->make_test();
  this->send(*test);
  this->send(*other);
  EXPECT_EQ(this->network_.sent.size(), 1u);
  // The second one is described all the same.
  EXPECT_EQ(other->get_description(), test->get_description());
}

TYPED_TEST(EchoProbeTest, OtherTargetsAndInterfacesHaveTheirOwn) {
  using Kit = EchoKit<TypeParam>;
  const auto test = this->make_test();
  const auto other_target = this->make_test(Kit::kOtherGateway);
  LBInterface other_interface(unused_name("lb"), TypeParam::kFamily.ipv6);
  const auto other_way = std::make_unique<typename Kit::Test>();
  other_way->set_target(Kit::kTarget);
  other_way->init(other_interface);
  this->send(*test);
  this->send(*other_target);
  other_way->send(other_interface, this->worker_);
  EXPECT_EQ(this->network_.sent.size(), 3u);
  this->probes().erase(this->probes().find(other_interface.origin, Kit::kTarget)->key);
}

TYPED_TEST(EchoProbeTest, RecordUnderTheSameKeyIsKept) {
  const auto test = this->make_test();
  this->make_next_key(100);
  this->probes().insert(100, {"elsewhere", kProbeWaiting, {}, "other"});
  this->send(*test);
  EXPECT_TRUE(this->probes().find("elsewhere", "other").has_value());
  EXPECT_FALSE(this->probe_to(EchoKit<TypeParam>::kTarget).has_value());
  EXPECT_EQ(this->network_.sent.size(), 1u);
  this->probes().erase(100);
}

// The interface's mutex.

TYPED_TEST(EchoProbeTest, NothingIsSentWithoutTheMutex) {
  pthread_mutex_t* const mutex = this->acquire_mutex();
  const auto test = this->make_test();
  {
    BrokenLock broken(mutex, EINVAL);
    this->send(*test);
  }
  EXPECT_THAT(this->network_.sent, IsEmpty());
  EXPECT_FALSE(this->probe_to(EchoKit<TypeParam>::kTarget).has_value());
  EXPECT_THAT(log_records(), ElementsAre(this->logged_mutex_failure("send", "lock", EINVAL)));
}

TYPED_TEST(EchoProbeTest, ProbeIsTakenBackWhenTheMutexStaysLocked) {
  pthread_mutex_t* const mutex = this->acquire_mutex();
  const auto test = this->make_test();
  {
    BrokenUnlock broken(mutex, EPERM);
    this->send(*test);
  }
  EXPECT_THAT(this->network_.sent, IsEmpty());
  EXPECT_FALSE(this->probe_to(EchoKit<TypeParam>::kTarget).has_value());
  EXPECT_THAT(log_records(), ElementsAre(this->logged_mutex_failure("send", "unlock", EPERM)));
  this->send(*test);  // the next cycle works again
  EXPECT_EQ(this->network_.sent.size(), 1u);
}

// The way out.

TYPED_TEST(EchoProbeTest, FlagChoosesTheRawPath) {
  const auto test = this->make_test();
  this->send(*test);
  ASSERT_EQ(this->network_.sent.size(), 1u);
  EXPECT_EQ(this->network_.sent[0].fd, this->sockets()->send_socket.get());
}

TYPED_TEST(EchoProbeTest, FramesGoOutWhereAddressesAreResolved) {
  this->network_.no_arp = false;
  const auto test = this->make_test();
  this->send(*test);
  ASSERT_EQ(this->network_.sent.size(), 1u);
  EXPECT_EQ(this->network_.sent[0].fd, this->sockets()->packet_socket.get());
}

TYPED_TEST(EchoProbeTest, FlagIsReadOnce) {
  const auto test = this->make_test();
  this->send(*test);
  this->network_.no_arp = false;
  this->probes().erase(this->probe_to(EchoKit<TypeParam>::kTarget)->key);
  this->send(*test);
  EXPECT_EQ(this->network_.ioctl_calls[SIOCGIFFLAGS], 1);
  ASSERT_EQ(this->network_.sent.size(), 2u);
  EXPECT_EQ(this->network_.sent[1].fd, this->sockets()->send_socket.get());
  EXPECT_EQ(this->state().no_arp, true);
}

TYPED_TEST(EchoProbeTest, FlagThatCouldNotBeReadIsAskedForAgain) {
  this->network_.ioctl_errors[SIOCGIFFLAGS] = ENODEV;
  const auto test = this->make_test();
  this->send(*test);
  ASSERT_EQ(this->network_.sent.size(), 1u);
  EXPECT_EQ(this->network_.sent[0].fd, this->sockets()->packet_socket.get());
  EXPECT_EQ(this->state().no_arp, std::nullopt);

  this->network_.ioctl_errors.clear();
  this->probes().erase(this->probe_to(EchoKit<TypeParam>::kTarget)->key);
  this->send(*test);
  ASSERT_EQ(this->network_.sent.size(), 2u);
  EXPECT_EQ(this->network_.sent[1].fd, this->sockets()->send_socket.get());
}

// Failures.

TYPED_TEST(EchoProbeTest, FullQueueFailsByTimeOut) {
  const auto test = this->make_test();
  this->sockets()->receiver_state = ReceiverState::kFailed;
  int32_t failures = 0;
  for (const int error : {EAGAIN, ENOBUFS}) {
    {
      Fault fault("sendto", error);
      this->send(*test);
    }
    virtual_clock::advance(5000ms);
    test->recv(this->interface_, this->worker_);
    EXPECT_EQ(failures == 0, this->state().failure_counts.empty()) << "too early";
    virtual_clock::advance(1ms);
    test->recv(this->interface_, this->worker_);
    EXPECT_FALSE(this->probe_to(EchoKit<TypeParam>::kTarget).has_value());
    EXPECT_EQ(test->report().result, kResultFailure);
    ++failures;
  }
  EXPECT_THAT(this->network_.sent, IsEmpty());
}

TYPED_TEST(EchoProbeTest, FailedProbeStaysInFlightAndTimesOut) {
  using Kit = EchoKit<TypeParam>;
  const auto test = this->make_test();
  {
    Fault fault("sendto", ENETUNREACH);
    this->send(*test);
  }
  EXPECT_TRUE(this->probe_to(Kit::kTarget).has_value());
  EXPECT_EQ(test->report().result, 0);
  EXPECT_THAT(this->state().failure_counts, IsEmpty());
  this->send(*test);  // one at a time, also after a failure
  EXPECT_THAT(this->network_.sent, IsEmpty());

  this->sockets()->receiver_state = ReceiverState::kFailed;
  virtual_clock::advance(5001ms);
  test->recv(this->interface_, this->worker_);
  EXPECT_EQ(test->report().result, 2);
  EXPECT_THAT(this->state().failure_counts, ElementsAre(Pair(Kit::kTarget, 1)));
}
