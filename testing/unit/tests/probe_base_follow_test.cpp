// A test without a target on an interface whose next hop is followed.
#include "support/echo_send_fixture.h"

using testing::ElementsAre;
using testing::IsEmpty;
using testing::Pair;
using testing::UnorderedElementsAre;

namespace {

template <class IpVersion>
class ProbeBaseFollowTest : public EchoSendFixture<IpVersion> {
 protected:
  using Kit = EchoKit<IpVersion>;

  ProbeBaseFollowTest() { this->interface_.nexthop = "kernel"; }

  void find_nexthop(const std::string& address) {
    MutexLock lock(this->interface_.mutex);
    this->interface_.state.nexthop_address = address;
  }

  // What is settled of an address.
  void settle(const std::string& address, int32_t result, int32_t successes, int32_t failures) {
    MutexLock lock(this->interface_.mutex);
    this->interface_.state.target_results[address] = result;
    this->interface_.state.success_counts[address] = successes;
    this->interface_.state.failure_counts[address] = failures;
  }

  // A test that the interface has.
  std::shared_ptr<typename Kit::Test> add_test(int32_t index, const std::string& target) {
    std::shared_ptr<typename Kit::Test> test = this->make_test(target);
    this->interface_.tests[index] = test;
    return test;
  }

  const std::string old_ = Kit::kGateway;
  const std::string new_ = Kit::kOtherGateway;
};

}  // namespace

TYPED_TEST_SUITE(ProbeBaseFollowTest, BothFamilies, FamilyName);

TYPED_TEST(ProbeBaseFollowTest, GoesOverToTheNewNextHop) {
  const auto test = this->add_test(1, "");
  this->send(*test);
  EXPECT_EQ(test->report().target, "");
  this->find_nexthop(this->old_);
  this->send(*test);
  EXPECT_THAT(this->state().target_results, ElementsAre(Pair(this->old_, -1)));
  this->find_nexthop(this->new_);
  this->send(*test);
  EXPECT_EQ(test->report().target, this->new_);
  EXPECT_EQ(test->get_description(), "ping\tTarget: " + this->new_);
  EXPECT_TRUE(this->probe_to(this->new_).has_value());
}

TYPED_TEST(ProbeBaseFollowTest, WhatHasSettledGoesOver) {
  const auto test = this->add_test(1, "");
  this->find_nexthop(this->old_);
  this->send(*test);
  this->settle(this->old_, 0, 3, 0);
  this->find_nexthop(this->new_);
  this->send(*test);
  EXPECT_THAT(this->state().target_results, ElementsAre(Pair(this->new_, 0)));
  EXPECT_THAT(this->state().success_counts, ElementsAre(Pair(this->new_, 3)));
  EXPECT_THAT(this->state().failure_counts, ElementsAre(Pair(this->new_, 0)));
}

TYPED_TEST(ProbeBaseFollowTest, ProbeToTheOldOneIsForgotten) {
  const auto test = this->add_test(1, "");
  this->find_nexthop(this->old_);
  this->send(*test);
  const auto entry = this->probe_to(this->old_);
  ASSERT_TRUE(entry.has_value());
  this->find_nexthop(this->new_);
  this->send(*test);
  EXPECT_FALSE(this->probe_to(this->old_).has_value());
  this->probes().mark_answered(entry->key);  // a late reply
  virtual_clock::advance(std::chrono::seconds(10));
  test->recv(this->interface_, this->worker_);
  EXPECT_THAT(this->state().success_counts, ElementsAre(Pair(this->new_, 0)));
  EXPECT_THAT(this->state().failure_counts, ElementsAre(Pair(this->new_, 1)));
}

TYPED_TEST(ProbeBaseFollowTest, NoNextHopKeepsTheLast) {
  const auto test = this->add_test(1, "");
  this->find_nexthop(this->old_);
  this->send(*test);
  this->settle(this->old_, 0, 3, 0);
  this->find_nexthop("");
  this->send(*test);
  EXPECT_EQ(test->report().target, this->old_);
  EXPECT_THAT(this->state().target_results, ElementsAre(Pair(this->old_, 0)));
}

TYPED_TEST(ProbeBaseFollowTest, ConfiguredTargetStays) {
  const auto test = this->add_test(1, this->old_);
  this->find_nexthop(this->old_);
  this->send(*test);
  this->settle(this->old_, 0, 3, 0);
  this->find_nexthop(this->new_);
  this->send(*test);
  EXPECT_EQ(test->report().target, this->old_);
  EXPECT_THAT(this->state().target_results, ElementsAre(Pair(this->old_, 0)));
}

TYPED_TEST(ProbeBaseFollowTest, AnotherTestsTargetKeepsItsResult) {
  const auto configured = this->add_test(1, this->old_);
  const auto follower = this->add_test(2, "");
  this->find_nexthop(this->old_);
  this->send(*configured);
  this->send(*follower);
  this->settle(this->old_, 0, 3, 0);
  this->find_nexthop(this->new_);
  this->send(*follower);
  EXPECT_THAT(this->state().target_results,
              UnorderedElementsAre(Pair(this->old_, 0), Pair(this->new_, 0)));
  EXPECT_TRUE(this->probe_to(this->old_).has_value()) << "it is the other test's too";
}

TYPED_TEST(ProbeBaseFollowTest, NextHopThatIsAnotherTestsTargetKeepsItsOwnResult) {
  const auto configured = this->add_test(1, this->new_);
  const auto follower = this->add_test(2, "");
  this->find_nexthop(this->old_);
  this->send(*follower);
  this->settle(this->old_, 0, 3, 0);
  this->settle(this->new_, -1, 0, 1);
  this->find_nexthop(this->new_);
  this->send(*follower);
  EXPECT_THAT(this->state().target_results, ElementsAre(Pair(this->new_, -1)));
  EXPECT_THAT(this->state().success_counts, ElementsAre(Pair(this->new_, 0)));
  EXPECT_THAT(this->state().failure_counts, ElementsAre(Pair(this->new_, 1)));
}

TYPED_TEST(ProbeBaseFollowTest, TwoThatFollowGoOverTogether) {
  const auto first = this->add_test(1, "");
  const auto second = this->add_test(2, "");
  this->find_nexthop(this->old_);
  this->send(*first);
  this->send(*second);
  this->settle(this->old_, 0, 3, 0);
  this->find_nexthop(this->new_);
  this->send(*first);
  this->send(*second);
  EXPECT_THAT(this->state().target_results, ElementsAre(Pair(this->new_, 0)));
  EXPECT_THAT(this->state().success_counts, ElementsAre(Pair(this->new_, 3)));
  EXPECT_THAT(this->state().failure_counts, ElementsAre(Pair(this->new_, 0)));
}

TYPED_TEST(ProbeBaseFollowTest, LeasesAndTunnelsAreFollowedWithTheOptionOnly) {
  for (const char* word : {"dhcp", "tunnel"}) {
    for (const bool linux_discovery : {false, true}) {
      LBInterface interface(unused_name("lb"), TypeParam::kFamily.ipv6);
      interface.nexthop = word;
      interface.options = std::make_shared<Options>(Options{.linux_discovery = linux_discovery});
      const auto test = std::make_unique<typename EchoKit<TypeParam>::Test>();
      test->init(interface);
      for (const std::string& nexthop : {this->old_, this->new_}) {
        {
          MutexLock lock(interface.mutex);
          interface.state.nexthop_address = nexthop;
        }
        test->send(interface, this->worker_);
      }
      EXPECT_EQ(test->report().target, linux_discovery ? this->new_ : this->old_) << word;
      const auto left = this->probes().find(interface.origin, test->report().target);
      if (left) this->probes().erase(left->key);
    }
  }
}
