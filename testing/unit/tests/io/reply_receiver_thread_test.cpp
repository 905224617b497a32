// The life of an interface's receiver thread: its start, its end, and how a worker waits for it.
#include "support/receiver_fixture.h"

using testing::ElementsAre;
using testing::IsEmpty;

namespace {

template <class IpVersion>
class ReplyReceiverThreadTest : public ReceiverFixture<IpVersion> {};

// A receiver that is stopped before or after it takes a reply off its queue, and a worker for whom
// the time of that reply's probe is over.
template <class IpVersion>
class ReplyReceiverLateTest : public ReceiverFixture<IpVersion> {
 protected:
  ReplyReceiverLateTest()
      : poll_hook_(wrapped::poll,
                   [this](pollfd* fds, nfds_t count, int timeout) {
                     const int ready = wrapped::poll.real(fds, count, timeout);
                     if (!takes_first_ && timeout < 0) hold();
                     return ready;
                   }),
        recv_hook_(wrapped::recv, [this](int fd, void* data, size_t size, int flags) {
          const ssize_t received = wrapped::recv.real(fd, data, size, flags);
          if (takes_first_) hold();
          return received;
        }) {
    test_ = this->make_test("probe");
    key_ = this->enter_probe("probe");
  }

  ~ReplyReceiverLateTest() override {
    released_ = true;
    this->network_.end_threads();
  }

  // The reply has arrived, and the receiver is held with it.
  void hold_receiver(bool takes_first) {
    takes_first_ = takes_first;
    this->start();
    this->deliver_answer(key_);
    ASSERT_TRUE(wait_until([&] { return held_.load(); }));
    EXPECT_EQ(this->sockets()->receiver_state == ReceiverState::kReading, takes_first);
  }

  // The worker looks, and the receiver goes on once it has waited so often.
  int32_t outcome_when_released_after(size_t sleeps) {
    const virtual_clock::SleepHook sleep([this, sleeps](std::chrono::nanoseconds) {
      if (virtual_clock::sleeps().size() != sleeps) return;
      released_ = true;
      EXPECT_TRUE(this->becomes_answered());
    });
    virtual_clock::advance(std::chrono::milliseconds(5001));
    test_->recv(this->interface_, this->worker_);
    return test_->report().result;
  }

  void hold() {
    held_ = true;
    while (!released_) sched_yield();
  }

  bool takes_first_ = false;
  std::atomic<bool> held_{false};
  std::atomic<bool> released_{false};
  std::unique_ptr<typename EchoKit<IpVersion>::Test> test_;
  int32_t key_ = 0;
  CallHook<int(pollfd*, nfds_t, int)> poll_hook_;
  CallHook<ssize_t(int, void*, size_t, int)> recv_hook_;
};

}  // namespace

TYPED_TEST_SUITE(ReplyReceiverThreadTest, BothFamilies, FamilyName);
TYPED_TEST_SUITE(ReplyReceiverLateTest, BothFamilies, FamilyName);

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

// A worker for whom the time of a probe is over.

TYPED_TEST(ReplyReceiverLateTest, UnreadReplyIsNotTooLate) {
  this->hold_receiver(false);
  EXPECT_EQ(this->outcome_when_released_after(3), kResultSuccess);
}

TYPED_TEST(ReplyReceiverLateTest, ReplyThatIsBeingReadIsNotTooLate) {
  this->hold_receiver(true);
  EXPECT_EQ(this->outcome_when_released_after(3), kResultSuccess);
}

TYPED_TEST(ReplyReceiverLateTest, IsWaitedForAFifthOfASecond) {
  this->hold_receiver(false);
  EXPECT_EQ(this->outcome_when_released_after(1000), kResultFailure);
  EXPECT_THAT(virtual_clock::sleeps(),
              testing::AllOf(testing::SizeIs(200), testing::Each(std::chrono::milliseconds(1))));
}

TYPED_TEST(ReplyReceiverThreadTest, ThatHasEndedIsNotWaitedFor) {
  this->start();
  {
    Fault fault("recv", ENETDOWN);
    this->deliver({1});
    ASSERT_TRUE(this->wait_for_end());
  }
  this->deliver({1});
  let_receiver_catch_up(*this->sockets());
  EXPECT_THAT(virtual_clock::sleeps(), IsEmpty());
}

TYPED_TEST(ReplyReceiverThreadTest, ThatCouldNotBeStartedIsNotWaitedFor) {
  {
    Fault fault("pthread_create", EAGAIN);
    this->start();
  }
  this->deliver({1});
  let_receiver_catch_up(*this->sockets());
  EXPECT_THAT(virtual_clock::sleeps(), IsEmpty());
}
