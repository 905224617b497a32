// A worker for whom the time of a probe is over: how long it waits for the receiver to catch up.
#include "support/receiver_fixture.h"

using testing::Each;
using testing::IsEmpty;
using testing::SizeIs;
using namespace std::chrono_literals;

namespace {

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

  // The worker looks at this probe and at as many others that nobody answers, all too late.
  void look_too_late(int others) {
    virtual_clock::advance(std::chrono::milliseconds(5001));
    test_->recv(this->interface_, this->worker_);
    for (int other = 0; other < others; ++other) {
      const std::string target = "other " + std::to_string(other);
      others_.push_back(this->make_test(target));
      this->enter_probe(target);
      virtual_clock::advance(std::chrono::milliseconds(5001));
      others_.back()->recv(this->interface_, this->worker_);
      EXPECT_EQ(others_.back()->report().result, kResultFailure);
    }
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
  std::vector<std::unique_ptr<typename EchoKit<IpVersion>::Test>> others_;  // sockets go with one
  int32_t key_ = 0;
  CallHook<int(pollfd*, nfds_t, int)> poll_hook_;
  CallHook<ssize_t(int, void*, size_t, int)> recv_hook_;
};

}  // namespace

TYPED_TEST_SUITE(ReplyReceiverLateTest, BothFamilies, FamilyName);

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
  EXPECT_THAT(virtual_clock::sleeps(), testing::AllOf(SizeIs(200), Each(1ms)));
}

TYPED_TEST(ReplyReceiverLateTest, CycleWaitsForAFifthOfASecondInAll) {
  CatchUpBudget budget;
  this->worker_.catch_up = &budget;
  this->hold_receiver(false);
  this->look_too_late(5);
  EXPECT_EQ(this->test_->report().result, kResultFailure);
  EXPECT_THAT(virtual_clock::sleeps(), testing::AllOf(SizeIs(200), Each(1ms)));
  EXPECT_EQ(budget.milliseconds, 0);
}

TYPED_TEST(ReplyReceiverLateTest, EveryProbeHasItsOwnFifthWithoutACycle) {
  this->hold_receiver(false);
  this->look_too_late(2);
  EXPECT_THAT(virtual_clock::sleeps(), SizeIs(600));
}

TYPED_TEST(ReplyReceiverLateTest, WhatWasWaitedIsTakenOffTheCyclesTime) {
  CatchUpBudget budget;
  this->worker_.catch_up = &budget;
  this->hold_receiver(false);
  EXPECT_EQ(this->outcome_when_released_after(3), kResultSuccess);
  // The worker may look once more before the receiver, which has marked the probe, waits again.
  const auto pauses = static_cast<int>(virtual_clock::sleeps().size());
  EXPECT_GE(pauses, 3);
  EXPECT_EQ(budget.milliseconds, 200 - pauses);
}

TYPED_TEST(ReplyReceiverLateTest, CycleWithoutTimeLeftDoesNotWait) {
  CatchUpBudget budget{.milliseconds = 0};
  this->worker_.catch_up = &budget;
  this->hold_receiver(false);
  this->look_too_late(1);
  EXPECT_THAT(virtual_clock::sleeps(), IsEmpty());
  EXPECT_EQ(budget.milliseconds, 0);
}

// A machine that is busy pauses for longer than it was asked to.
TYPED_TEST(ReplyReceiverLateTest, PausesCountAsLongAsTheyAre) {
  CatchUpBudget budget;
  this->worker_.catch_up = &budget;
  const virtual_clock::SleepHook sleep([](auto) { virtual_clock::advance(49ms); });
  this->hold_receiver(false);
  this->look_too_late(3);
  EXPECT_THAT(virtual_clock::sleeps(), SizeIs(4));
  EXPECT_EQ(budget.milliseconds, 0);
}

// The last pause may go beyond the time, and leaves no debt.
TYPED_TEST(ReplyReceiverLateTest, OverlongPauseEndsTheWaiting) {
  CatchUpBudget budget;
  this->worker_.catch_up = &budget;
  const virtual_clock::SleepHook sleep([](auto) { virtual_clock::advance(19s); });
  this->hold_receiver(false);
  this->look_too_late(3);
  EXPECT_THAT(virtual_clock::sleeps(), SizeIs(1));
  EXPECT_EQ(budget.milliseconds, 0);
}
