// Which target a test probes: the configured one, or the gateway.
#include "support/echo_send_fixture.h"

using testing::ElementsAre;
using testing::IsEmpty;
using testing::Pair;

namespace {

template <class IpVersion>
class ProbeBaseTargetTest : public EchoSendFixture<IpVersion> {};

}  // namespace

TYPED_TEST_SUITE(ProbeBaseTargetTest, BothFamilies, FamilyName);

TYPED_TEST(ProbeBaseTargetTest, GatewayIsTheTargetWhereNoneIsConfigured) {
  using Kit = EchoKit<TypeParam>;
  const auto test = this->make_test("");
  this->send(*test);
  EXPECT_TRUE(this->probe_to(Kit::kGateway).has_value());
  EXPECT_EQ(test->get_description(), std::string("ping\tTarget: ") + Kit::kGateway);
  EXPECT_EQ(test->report().target, Kit::kGateway);
  EXPECT_EQ(test->describe(), std::string("target: ") + Kit::kGateway + ", resp_time: 5000");
}

TYPED_TEST(ProbeBaseTargetTest, GatewayAsTargetStartsAsFailed) {
  const auto test = this->make_test("");
  EXPECT_THAT(this->state().target_results, IsEmpty());
  this->send(*test);
  EXPECT_THAT(this->state().target_results, ElementsAre(Pair(EchoKit<TypeParam>::kGateway, -1)));
}

TYPED_TEST(ProbeBaseTargetTest, GatewayAsTargetAddsNothingToOtherResults) {
  {
    MutexLock lock(this->interface_.mutex);
    this->interface_.state.target_results["other"] = 0;
  }
  const auto test = this->make_test("");
  this->send(*test);
  EXPECT_THAT(this->state().target_results, ElementsAre(Pair("other", 0)));
}

TYPED_TEST(ProbeBaseTargetTest, ConfiguredTargetStartsWithoutAResult) {
  const auto test = this->make_test();
  this->send(*test);
  EXPECT_THAT(this->state().target_results, IsEmpty());
}

TYPED_TEST(ProbeBaseTargetTest, NoTargetAndNoGatewaySendNothing) {
  this->interface_.nexthop.clear();
  const auto test = this->make_test("");
  const int32_t key = this->probes().next_key();
  this->send(*test);
  EXPECT_THAT(this->network_.sent, IsEmpty());
  EXPECT_EQ(test->get_description(), "ping\tTarget: ");
  EXPECT_EQ(test->report().target, "");
  EXPECT_THAT(this->state().target_results, IsEmpty());
  EXPECT_EQ(this->probes().next_key(), (key + 1) % 32767);
}

TYPED_TEST(ProbeBaseTargetTest, LearntNextHopIsKeptAsTargetForGood) {
  using Kit = EchoKit<TypeParam>;
  for (const char* word : {"dhcp", "tunnel"}) {
    LBInterface interface(unused_name("lb"), TypeParam::kFamily.ipv6);
    interface.nexthop = word;
    const auto test = std::make_unique<typename Kit::Test>();
    test->init(interface);
    const auto set_next_hop = [&](const char* address) {
      MutexLock lock(interface.mutex);
      interface.state.nexthop_address = address;
    };

    test->send(interface, this->worker_);  // nothing learnt yet
    EXPECT_EQ(test->report().target, "") << word;

    set_next_hop(Kit::kGateway);
    test->send(interface, this->worker_);
    const auto entry = this->probes().find(interface.origin, Kit::kGateway);
    ASSERT_TRUE(entry.has_value()) << word;
    this->probes().erase(entry->key);

    set_next_hop(Kit::kOtherGateway);
    test->send(interface, this->worker_);
    EXPECT_EQ(test->report().target, Kit::kGateway) << word;
    EXPECT_FALSE(this->probes().find(interface.origin, Kit::kOtherGateway).has_value()) << word;
    const auto again = this->probes().find(interface.origin, Kit::kGateway);
    ASSERT_TRUE(again.has_value()) << word;
    this->probes().erase(again->key);

    set_next_hop("");
    test->send(interface, this->worker_);
    this->probes().erase(this->probes().find(interface.origin, Kit::kGateway)->key);
  }
}

TYPED_TEST(ProbeBaseTargetTest, OtherWordsAreGatewaysAsTheyStand) {
  for (const char* word : {"DHCP", "dhcp ", "tunnel0"}) {
    this->interface_.nexthop = word;
    const auto test = this->make_test("");
    this->send(*test);
    EXPECT_EQ(test->report().target, word);
  }
}
