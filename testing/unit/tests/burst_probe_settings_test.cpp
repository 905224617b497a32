// The keywords of the extended ping test and what reports show of it.
#include "support/echo_fixture.h"
#include "tests/burst_probe.h"
#include "tests/probe_factory.h"

using testing::IsEmpty;

namespace {

class BurstProbeSettingsTest : public EchoFixture<Ipv4> {
 protected:
  LBTestPING test_;
};

}  // namespace

TEST_F(BurstProbeSettingsTest, NamesAndDefaults) {
  EXPECT_STREQ(test_.type_name(), "ping extended");
  EXPECT_EQ(test_.describe(), "target: , resp_time: 5000");
  EXPECT_EQ(test_.get_description(), "");
  test_.init(interface_);
  EXPECT_EQ(test_.get_description(), "ping extended");
}

TEST_F(BurstProbeSettingsTest, ResponseTimeIsOnlyShown) {
  test_.set_target("192.0.2.7");
  test_.set_number(TestKeyword::kResponseTime, 700);
  EXPECT_EQ(test_.describe(), "target: 192.0.2.7, resp_time: 700");
}

TEST_F(BurstProbeSettingsTest, NothingIsMeasuredBeforeTheFirstResult) {
  EXPECT_EQ(test_.report().result, 0);
  EXPECT_FALSE(test_.report().measurement.has_value());
}

TEST_F(BurstProbeSettingsTest, RecvDoesNothing) {
  test_.set_target(EchoKit<Ipv4>::kTarget);
  test_.init(interface_);
  const int32_t key = enter_probe();
  virtual_clock::advance(std::chrono::seconds(60));
  test_.recv(interface_, worker_);
  EXPECT_EQ(call_count("pthread_create"), 0);
  EXPECT_FALSE(sockets()->receiver_running);
  EXPECT_TRUE(probe_to(EchoKit<Ipv4>::kTarget).has_value());
  EXPECT_EQ(test_.report().result, 0);
  EXPECT_THAT(state().failure_counts, IsEmpty());
  probes().erase(key);
}

TEST_F(BurstProbeSettingsTest, SharesTheSocketsOfTheInterface) {
  test_.init(interface_);
  EXPECT_EQ(network_.sockets.size(), 3u);
  const auto other = make_test();
  EXPECT_EQ(network_.sockets.size(), 3u);
}

TEST(TestFactory, MakesTheTypesOfTheConfiguration) {
  const LBTestFactory factory;
  EXPECT_NE(dynamic_cast<LBTestICMP*>(factory.create("ping").get()), nullptr);
  EXPECT_NE(dynamic_cast<LBTestPING*>(factory.create("ping_ext").get()), nullptr);
  EXPECT_NE(dynamic_cast<LBTestICMP6*>(factory.create6("ping").get()), nullptr);
}

TEST(TestFactory, KnowsNoOtherTypes) {
  const LBTestFactory factory;
  for (const char* type : {"", "ping6", "Ping", "ping ", "ping_ext ", "arp"}) {
    EXPECT_EQ(factory.create(type), nullptr) << type;
    EXPECT_EQ(factory.create6(type), nullptr) << type;
  }
  EXPECT_EQ(factory.create6("ping_ext"), nullptr);
}

TEST(TestFactory, SettingsAreThoseOfTheTest) {
  const LBTestFactory factory;
  const auto test = factory.create("ping");
  factory.settings(*test).set_target("192.0.2.7");
  EXPECT_EQ(static_cast<HealthTest&>(*test).report().target, "192.0.2.7");
  const auto test6 = factory.create6("ping");
  factory.settings(*test6).set_target("2001:db8::7");
  EXPECT_EQ(static_cast<HealthTest&>(*test6).report().target, "2001:db8::7");
}
