// The life of an interface's receiver thread: its start, its end, and how a worker waits for it.
#include "support/receiver_fixture.h"

using testing::ElementsAre;
using testing::IsEmpty;

namespace {

template <class IpVersion>
class ReplyReceiverThreadTest : public ReceiverFixture<IpVersion> {};

}  // namespace

TYPED_TEST_SUITE(ReplyReceiverThreadTest, BothFamilies, FamilyName);

TYPED_TEST(ReplyReceiverThreadTest, OneThreadPerInterface) {
  this->start();
  ensure_receiver(TypeParam::kFamily, this->ifname_);
  ensure_receiver(TypeParam::kFamily, this->ifname_);
  EXPECT_EQ(call_count("pthread_create"), 1);
  EXPECT_EQ(call_count("pthread_detach"), 1);
  EXPECT_NE(this->sockets()->receiver_state, ReceiverState::kAbsent);
}

TYPED_TEST(ReplyReceiverThreadTest, EndsWhenReadingFails) {
  Fault fault("recv", ENETDOWN);
  this->start();
  this->deliver({1});
  this->expect_end_by("recv");
}

TYPED_TEST(ReplyReceiverThreadTest, EndsWhenNothingIsRead) {
  this->start();
  ::shutdown(this->socket_.peer, SHUT_RDWR);
  this->expect_end_by("recv");
}

TYPED_TEST(ReplyReceiverThreadTest, EndsWhenTheWaitIsOverWithNothing) {
  CallHook hook(wrapped::poll, [](pollfd*, nfds_t, int) { return 0; });
  this->start();
  this->expect_end_by("select");
}

TYPED_TEST(ReplyReceiverThreadTest, FailedWaitEndsIpv4OnlyIpv6ReadsOn) {
  const int32_t key = this->enter_probe("probe");
  Fault fault("poll", EINTR, 0, 1);
  this->start();
  if (TypeParam::kFamily.ipv6) {
    this->deliver_answer(key);
    EXPECT_TRUE(this->becomes_answered());
    EXPECT_THAT(log_records(), IsEmpty());
    EXPECT_NE(this->sockets()->receiver_state, ReceiverState::kAbsent);
  } else {
    this->expect_end_by("select");
  }
}

TYPED_TEST(ReplyReceiverThreadTest, ComesBackWithTheNextCall) {
  const int32_t key = this->enter_probe("probe");
  {
    Fault fault("recv", ENETDOWN);
    this->start();
    this->deliver({1});
    ASSERT_TRUE(this->wait_for_end());
  }
  this->start();
  EXPECT_EQ(call_count("pthread_create"), 2);
  this->deliver_answer(key);
  EXPECT_TRUE(this->becomes_answered());
}

TYPED_TEST(ReplyReceiverThreadTest, SocketThatCouldNotBeMadeIsAFailedWait) {
  {
    Fault fault("socket", EPERM);
    this->sockets();
  }
  clear_log();
  ensure_receiver(TypeParam::kFamily, this->ifname_);
  this->expect_end_by(TypeParam::kFamily.ipv6 ? "recv" : "select");
}

TYPED_TEST(ReplyReceiverThreadTest, ThreadThatCannotBeMadeIsLoggedAndNotTriedAgain) {
  {
    Fault fault("pthread_create", EAGAIN);
    ensure_receiver(TypeParam::kFamily, this->ifname_);
  }
  EXPECT_THAT(log_records(), ElementsAre(LoggedError("Can't create new thread for icmp recv"),
                                         LoggedError("Can't detach thread for icmp recv")));
  EXPECT_NE(this->sockets()->receiver_state, ReceiverState::kAbsent);
  const int calls = call_count("pthread_create");
  ensure_receiver(TypeParam::kFamily, this->ifname_);
  EXPECT_EQ(call_count("pthread_create"), calls);
}

TYPED_TEST(ReplyReceiverThreadTest, ThreadThatCannotBeDetachedRunsAllTheSame) {
  const int32_t key = this->enter_probe("probe");
  CallHook hook(wrapped::pthread_detach, [](pthread_t thread) {
    wrapped::pthread_detach.real(thread);
    return EINVAL;
  });
  this->start();
  EXPECT_THAT(log_records(), ElementsAre(LoggedError("Can't detach thread for icmp recv")));
  this->deliver_answer(key);
  EXPECT_TRUE(this->becomes_answered());
}

TYPED_TEST(ReplyReceiverThreadTest, FailuresAreSilentWithoutTheFlag) {
  set_log_flag(1, false);
  Fault fault("pthread_create", EAGAIN);
  ensure_receiver(TypeParam::kFamily, this->ifname_);
  EXPECT_THAT(log_records(), IsEmpty());
}

// A worker that waits for it to catch up.

TYPED_TEST(ReplyReceiverThreadTest, ThatHasEndedIsNotWaitedFor) {
  this->start();
  {
    Fault fault("recv", ENETDOWN);
    this->deliver({1});
    ASSERT_TRUE(this->wait_for_end());
  }
  this->deliver({1});
  int milliseconds = 200;
  let_receivers_catch_up(*this->sockets(), milliseconds);
  EXPECT_EQ(milliseconds, 200);
  EXPECT_THAT(virtual_clock::sleeps(), IsEmpty());
}

TYPED_TEST(ReplyReceiverThreadTest, ThatCouldNotBeStartedIsNotWaitedFor) {
  {
    Fault fault("pthread_create", EAGAIN);
    this->start();
  }
  this->deliver({1});
  int milliseconds = 200;
  let_receivers_catch_up(*this->sockets(), milliseconds);
  EXPECT_EQ(milliseconds, 200);
  EXPECT_THAT(virtual_clock::sleeps(), IsEmpty());
}

// A flood there must not cost the probes here their time.
TYPED_TEST(ReplyReceiverThreadTest, ThoseOfAnotherNamespaceAreNotWaitedFor) {
  const auto own = this->sockets();
  ++this->network_.network_cookie;
  const std::string other = unused_name("lb");
  const auto theirs = sockets_of(TypeParam::kFamily, other);
  theirs->receiver_state = ReceiverState::kReading;
  int milliseconds = 200;
  let_receivers_catch_up(*own, milliseconds);
  EXPECT_EQ(milliseconds, 200);
  let_receivers_catch_up(*theirs, milliseconds);
  EXPECT_EQ(milliseconds, 0);
  theirs->receiver_state = ReceiverState::kAbsent;
}
