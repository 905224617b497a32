// The receiver thread of an interface whose replies are read from the wire.
#include "support/wire_fixture.h"

using testing::Contains;
using testing::IsEmpty;

namespace {

template <class IpVersion>
class WireReceiverTest : public WireFixture<IpVersion> {
 protected:
  static constexpr const char* kTarget = EchoKit<IpVersion>::kTarget;

  FakeNetwork::Bytes reply(int32_t key) const {
    return WireKit<IpVersion>::reply(static_cast<uint32_t>(key));
  }
};

}  // namespace

TYPED_TEST_SUITE(WireReceiverTest, BothFamilies, FamilyName);

TYPED_TEST(WireReceiverTest, MarksTheProbeOfAReply) {
  const int32_t key = this->enter_probe();
  this->start_receiver();
  this->deliver(this->reply(key));
  EXPECT_TRUE(this->becomes_answered(this->kTarget));
  EXPECT_THAT(log_records(), IsEmpty());
}

TYPED_TEST(WireReceiverTest, EnlargesTheQueueThatItReads) {
  this->start_receiver();
  ASSERT_TRUE(this->wire_handled());
  EXPECT_THAT(this->network_.option_names(this->socket_.fd), Contains(SO_RCVBUFFORCE));
}

TYPED_TEST(WireReceiverTest, ReplyBecomesASuccess) {
  const int32_t key = this->enter_probe();
  this->start_receiver();
  this->deliver(this->reply(key));
  ASSERT_TRUE(this->becomes_answered(this->kTarget));
  this->test_->recv(this->interface_, this->worker_);
  EXPECT_EQ(this->test_->report().result, kResultSuccess);
}

// Somebody behind this router pings with the same keys.
TYPED_TEST(WireReceiverTest, ReplyFromAnotherSenderChangesNothing) {
  const int32_t key = this->enter_probe();
  this->start_receiver();
  auto packet = this->reply(key);
  packet[WireKit<TypeParam>::kLastOfSource] ^= 1;
  seal(packet);
  this->deliver(packet);
  ASSERT_TRUE(this->wire_handled());
  EXPECT_FALSE(this->is_answered(this->kTarget));
}

TYPED_TEST(WireReceiverTest, ReplyToAProbeOfAnotherInterfaceChangesNothing) {
  const int32_t key = this->probes().next_key();
  this->probes().insert(key, {"elsewhere", kProbeWaiting, monotonic_now(), this->kTarget});
  this->start_receiver();
  this->deliver(this->reply(key));
  ASSERT_TRUE(this->wire_handled());
  EXPECT_EQ(this->probes().find("elsewhere", this->kTarget)->probe.state, kProbeWaiting);
  this->probes().erase(key);
}

TYPED_TEST(WireReceiverTest, DamagedReplyChangesNothing) {
  const int32_t key = this->enter_probe();
  this->start_receiver();
  auto packet = this->reply(key);
  packet[packet.size() - 7] ^= 0x40;  // the identifier; its checksum is wrong now
  this->deliver(packet);
  ASSERT_TRUE(this->wire_handled());
  EXPECT_FALSE(this->is_answered(this->kTarget));
}

TYPED_TEST(WireReceiverTest, GoesOnAfterTheDeviceWentDown) {
  const int32_t key = this->enter_probe();
  {
    Fault fault("recv", ENETDOWN, 0, 3);
    this->start_receiver();
    this->deliver(this->reply(key));
    EXPECT_TRUE(this->becomes_answered(this->kTarget));
  }
  EXPECT_THAT(log_records(), IsEmpty());
  EXPECT_EQ(call_count("pthread_create"), 1);
}

TYPED_TEST(WireReceiverTest, EndsWhenReadingFails) {
  Fault fault("recv", ENOMEM);
  this->start_receiver();
  this->deliver({1});
  this->expect_end_by("recv");
}

// What a paused machine left in the queue is read before a probe is given up.
TYPED_TEST(WireReceiverTest, ProbeIsNotGivenUpWhileItsReplyIsUnread) {
  const int32_t key = this->enter_probe();
  std::atomic<bool> held{false};
  std::atomic<bool> released{false};
  CallHook poll(wrapped::poll, [&](pollfd* fds, nfds_t count, int timeout) {
    const int ready = wrapped::poll.real(fds, count, timeout);
    if (timeout < 0) {
      held = true;
      while (!released) sched_yield();
    }
    return ready;
  });
  const virtual_clock::SleepHook sleep([&](std::chrono::nanoseconds) {
    released = true;
    EXPECT_TRUE(this->becomes_answered(this->kTarget));
  });
  this->start_receiver();
  this->deliver(this->reply(key));
  ASSERT_TRUE(wait_until([&] { return held.load(); }));
  virtual_clock::advance(std::chrono::seconds(6));
  this->test_->recv(this->interface_, this->worker_);
  EXPECT_EQ(this->test_->report().result, kResultSuccess);
  this->network_.end_threads();
}
