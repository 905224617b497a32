// Resolving an address, by either prober: the look, the request, and the wait for its answer.
#include "support/link_fixture.h"

using testing::Each;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::SizeIs;
using namespace std::chrono_literals;

namespace {

template <class Kind>
class LinkProberResolveTest : public LinkFixture<Kind> {
 protected:
  LinkProberResolveTest() : prober_(this->make_prober()) {}

  std::optional<MacAddress> resolve() {
    return prober_->resolve(Kind::kTarget, Kind::kSource, "eth0");
  }

  std::unique_ptr<typename Kind::Prober> prober_;
};

}  // namespace

TYPED_TEST_SUITE(LinkProberResolveTest, BothKinds, KindName);

TYPED_TEST(LinkProberResolveTest, KnownAddressNeedsNoRequest) {
  TypeParam::learn(this->network_);
  EXPECT_EQ(this->resolve(), kMac);
  EXPECT_EQ(TypeParam::looks(this->network_), 1u);
  EXPECT_THAT(this->network_.sent, IsEmpty());
  EXPECT_EQ(call_count("pthread_create"), 0);
  EXPECT_THAT(virtual_clock::sleeps(), IsEmpty());
}

TYPED_TEST(LinkProberResolveTest, UnknownAddressIsAskedForAndWaitedFor) {
  // The frame must not go out before the receiver listens.
  int receivers_at_sending = 0;
  CallHook hook(
      wrapped::sendto, [&](int, const void*, size_t size, int, const sockaddr*, socklen_t) {
        receivers_at_sending = this->network_.count(AF_PACKET, TypeParam::receive_protocol());
        return static_cast<ssize_t>(size);
      });
  const virtual_clock::SleepHook sleep([&](auto) {
    if (virtual_clock::sleeps().size() == 3) TypeParam::learn(this->network_);
  });
  EXPECT_EQ(this->resolve(), kMac);
  EXPECT_EQ(receivers_at_sending, 1);
  EXPECT_EQ(call_count("sendto"), 1);
  EXPECT_THAT(virtual_clock::sleeps(), ElementsAre(1ms, 1ms, 1ms));
  EXPECT_THAT(log_records(), IsEmpty());
}

TYPED_TEST(LinkProberResolveTest, WaitingEndsAfterAHundredPauses) {
  EXPECT_EQ(this->resolve(), std::nullopt);
  EXPECT_THAT(this->network_.sent, SizeIs(1));
  EXPECT_EQ(TypeParam::looks(this->network_), 1u + 101u);
  EXPECT_THAT(virtual_clock::sleeps(), testing::AllOf(SizeIs(100), Each(1ms)));
}

TYPED_TEST(LinkProberResolveTest, LastLookCounts) {
  const virtual_clock::SleepHook sleep([&](auto) {
    if (virtual_clock::sleeps().size() == 100) TypeParam::learn(this->network_);
  });
  EXPECT_EQ(this->resolve(), kMac);
}

TYPED_TEST(LinkProberResolveTest, FailedRequestIsWaitedForAllTheSame) {
  CapturedStderr output;
  Fault fault("sendto", ENETDOWN);
  EXPECT_EQ(this->resolve(), std::nullopt);
  EXPECT_THAT(virtual_clock::sleeps(), SizeIs(100));
}

TYPED_TEST(LinkProberResolveTest, FailedLockEndsTheProbe) {
  this->listen(*this->prober_);
  std::optional<MacAddress> mac = kMac;
  {
    BrokenLock broken(this->handshake_, EDEADLK);
    mac = this->resolve();
  }
  EXPECT_EQ(mac, std::nullopt);
  EXPECT_THAT(log_records(),
              ElementsAre(this->logged_mutex_failure("lock_mutex", "lock", EDEADLK)));
  EXPECT_THAT(this->network_.sent, IsEmpty());
  EXPECT_THAT(virtual_clock::sleeps(), IsEmpty());
}

TYPED_TEST(LinkProberResolveTest, FailedUnlockEndsTheProbe) {
  this->listen(*this->prober_);
  std::optional<MacAddress> mac = kMac;
  {
    BrokenUnlock broken(this->handshake_, EPERM, [] { return call_count("sendto") > 0; });
    mac = this->resolve();
  }
  EXPECT_EQ(mac, std::nullopt);
  EXPECT_THAT(log_records(),
              ElementsAre(this->logged_mutex_failure("unlock_mutex", "unlock", EPERM)));
  EXPECT_THAT(virtual_clock::sleeps(), IsEmpty());
}
