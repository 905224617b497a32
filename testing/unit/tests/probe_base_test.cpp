// What all tests share: the settling of the probe in flight.
#include "support/echo_fixture.h"

using testing::ElementsAre;
using testing::IsEmpty;
using testing::Pair;
using namespace std::chrono_literals;

namespace {

// A test whose receiver never starts, so that only the worker touches the probes.
template <class IpVersion>
class ProbeBaseTest : public EchoFixture<IpVersion> {
 protected:
  ProbeBaseTest() {
    mutex_ = this->acquire_mutex();
    test_ = this->make_test();
    this->sockets()->receiver_state = ReceiverState::kFailed;
    key_ = this->enter_probe();
  }

  ~ProbeBaseTest() override {
    if (const auto left = this->probe_to(EchoKit<IpVersion>::kTarget)) {
      this->probes().erase(left->key);
    }
  }

  void recv() { test_->recv(this->interface_, this->worker_); }
  int32_t result() { return test_->report().result; }
  bool in_flight() { return this->probe_to(EchoKit<IpVersion>::kTarget).has_value(); }

  void expect_unsettled() {
    EXPECT_TRUE(in_flight());
    EXPECT_EQ(result(), 0);
    EXPECT_THAT(this->state().success_counts, IsEmpty());
    EXPECT_THAT(this->state().failure_counts, IsEmpty());
  }

  void expect_failed() {
    EXPECT_FALSE(in_flight());
    EXPECT_EQ(result(), 2);
    EXPECT_THAT(this->state().failure_counts, ElementsAre(Pair(EchoKit<IpVersion>::kTarget, 1)));
    EXPECT_THAT(this->state().success_counts, ElementsAre(Pair(EchoKit<IpVersion>::kTarget, 0)));
  }

  void expect_succeeded() {
    EXPECT_FALSE(in_flight());
    EXPECT_EQ(result(), 1);
    EXPECT_THAT(this->state().success_counts, ElementsAre(Pair(EchoKit<IpVersion>::kTarget, 1)));
    EXPECT_THAT(this->state().failure_counts, ElementsAre(Pair(EchoKit<IpVersion>::kTarget, 0)));
  }

  pthread_mutex_t* mutex_ = nullptr;  // the interface's
  std::unique_ptr<typename EchoKit<IpVersion>::Test> test_;
  int32_t key_ = 0;
};

}  // namespace

TYPED_TEST_SUITE(ProbeBaseTest, BothFamilies, FamilyName);

TYPED_TEST(ProbeBaseTest, WaitsForTheWholeResponseTime) {
  this->recv();
  this->expect_unsettled();
  virtual_clock::advance(5000ms);
  this->recv();
  this->expect_unsettled();
  virtual_clock::advance(1ms);
  this->recv();
  this->expect_failed();
}

TYPED_TEST(ProbeBaseTest, TimesAreCutToMilliseconds) {
  this->probes().erase(this->key_);
  virtual_clock::set_monotonic({2000, 999999});  // counts as 2000.000
  this->key_ = this->enter_probe();
  virtual_clock::set_monotonic({2005, 999999});  // 5000 ms later
  this->recv();
  this->expect_unsettled();
  virtual_clock::set_monotonic({2005, 1000000});  // a nanosecond more
  this->recv();
  this->expect_failed();
}

TYPED_TEST(ProbeBaseTest, ResponseTimeIsConfigured) {
  this->test_->set_number(TestKeyword::kResponseTime, 900);
  virtual_clock::advance(900ms);
  this->recv();
  this->expect_unsettled();
  virtual_clock::advance(1ms);
  this->recv();
  this->expect_failed();
}

TYPED_TEST(ProbeBaseTest, ResponseTimeHasASign) {
  this->test_->set_number(TestKeyword::kResponseTime, 4294967295u);  // -1
  this->recv();
  this->expect_failed();
}

TYPED_TEST(ProbeBaseTest, NobodyIsWaitedForWhenNothingHasArrived) {
  virtual_clock::advance(5001ms);
  this->recv();
  this->expect_failed();
  EXPECT_THAT(virtual_clock::sleeps(), IsEmpty());
}

TYPED_TEST(ProbeBaseTest, OtherKeywordsHaveNoField) {
  for (const auto keyword : {TestKeyword::kPeriod, TestKeyword::kTimeout, TestKeyword::kCount,
                             TestKeyword::kLoss, TestKeyword::kRtt, TestKeyword::kJitter}) {
    this->test_->set_number(keyword, 1);
  }
  EXPECT_EQ(this->test_->report().resp_time, 5000);
  EXPECT_FALSE(this->test_->report().measurement.has_value());
}

TYPED_TEST(ProbeBaseTest, AnsweredProbeSucceeds) {
  this->probes().mark_answered(this->key_);
  this->recv();
  this->expect_succeeded();
}

TYPED_TEST(ProbeBaseTest, AnsweredProbeSucceedsHoweverLateItIsCollected) {
  this->probes().mark_answered(this->key_);
  virtual_clock::advance(60s);
  this->recv();
  this->expect_succeeded();
}

TYPED_TEST(ProbeBaseTest, LateReplyChangesNothing) {
  virtual_clock::advance(5001ms);
  this->recv();
  this->expect_failed();
  this->probes().mark_answered(this->key_);
  this->recv();
  this->expect_failed();
}

TYPED_TEST(ProbeBaseTest, ReplyAfterTheTimeButBeforeItIsCollectedCounts) {
  virtual_clock::advance(5001ms);
  this->probes().mark_answered(this->key_);
  this->recv();
  this->expect_succeeded();
}

TYPED_TEST(ProbeBaseTest, UnknownStateIsLeftAlone) {
  this->probes().erase(this->key_);
  this->key_ = this->enter_probe(EchoKit<TypeParam>::kTarget, 7);
  virtual_clock::advance(60s);
  this->recv();
  this->expect_unsettled();
}

TYPED_TEST(ProbeBaseTest, FirstInKeyOrderIsSettled) {
  const int32_t second = this->enter_probe();
  this->probes().mark_answered(second);
  virtual_clock::advance(5001ms);
  this->recv();  // the first key waits in vain, or the second wrapped before it
  EXPECT_TRUE(this->in_flight());
  EXPECT_EQ(this->result(), this->key_ < second ? 2 : 1);
}

TYPED_TEST(ProbeBaseTest, OtherTargetsProbeIsNotTouched) {
  this->test_->set_target("other");
  virtual_clock::advance(60s);
  this->recv();
  this->expect_unsettled();
}

TYPED_TEST(ProbeBaseTest, OtherInterfacesProbeIsNotTouched) {
  LBInterface other(unused_name("lb"), TypeParam::kFamily.ipv6);
  const auto test = std::make_unique<typename EchoKit<TypeParam>::Test>();
  test->set_target(EchoKit<TypeParam>::kTarget);
  test->init(other);
  sockets_of(TypeParam::kFamily, other.origin)->receiver_state = ReceiverState::kFailed;
  virtual_clock::advance(60s);
  test->recv(other, this->worker_);
  this->expect_unsettled();
  EXPECT_EQ(test->report().result, 0);
}

TYPED_TEST(ProbeBaseTest, WorkerOfTheOtherFamilyDoesNothing) {
  LBWorkerContext other = this->worker_;
  other.ipv6 = !TypeParam::kFamily.ipv6;
  this->sockets()->receiver_state = ReceiverState::kAbsent;
  virtual_clock::advance(60s);
  this->test_->recv(this->interface_, other);
  this->expect_unsettled();
  EXPECT_EQ(call_count("pthread_create"), 0);
  EXPECT_EQ(this->sockets()->receiver_state, ReceiverState::kAbsent);
}

TYPED_TEST(ProbeBaseTest, WorksOnUnlockedWhenTheMutexFails) {
  virtual_clock::advance(5001ms);
  int unlocks = 0;
  {
    BrokenLock broken(this->mutex_, EINVAL);
    CallHook unlock(wrapped::pthread_mutex_unlock, [&](pthread_mutex_t* mutex) {
      if (mutex == this->mutex_) ++unlocks;
      return wrapped::pthread_mutex_unlock.real(mutex);
    });
    this->recv();
  }
  this->expect_failed();
  EXPECT_EQ(unlocks, 0);
  EXPECT_THAT(log_records(), ElementsAre(this->logged_mutex_failure("recv", "lock", EINVAL)));
}

TYPED_TEST(ProbeBaseTest, UnlockFailureIsLogged) {
  this->probes().mark_answered(this->key_);
  {
    BrokenUnlock broken(this->mutex_, EPERM);
    this->recv();
  }
  this->expect_succeeded();
  EXPECT_THAT(log_records(), ElementsAre(this->logged_mutex_failure("recv", "unlock", EPERM)));
}

// The outcome is reported and the probe removed in one step towards the receiver.
TYPED_TEST(ProbeBaseTest, HoldsTheMutexWhileItSettles) {
  this->probes().mark_answered(this->key_);
  bool held = false;
  bool in_flight_at_lock = false;
  bool in_flight_at_unlock = true;
  {
    CallHook lock(wrapped::pthread_mutex_lock, [&](pthread_mutex_t* mutex) {
      if (mutex == this->mutex_) {
        in_flight_at_lock = this->in_flight();
        held = true;
      }
      return wrapped::pthread_mutex_lock.real(mutex);
    });
    CallHook unlock(wrapped::pthread_mutex_unlock, [&](pthread_mutex_t* mutex) {
      if (mutex == this->mutex_) {
        in_flight_at_unlock = this->in_flight();
        held = false;
      }
      return wrapped::pthread_mutex_unlock.real(mutex);
    });
    this->recv();
  }
  EXPECT_FALSE(held);
  EXPECT_TRUE(in_flight_at_lock);
  EXPECT_FALSE(in_flight_at_unlock);
}
