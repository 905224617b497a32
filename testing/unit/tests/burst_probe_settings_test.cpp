// The keywords of the extended ping test and what reports show of it.
#include "support/echo_fixture.h"
#include "tests/burst_probe.h"

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

// Unlike that of a single probe: the period, then a whole burst.
TEST_F(BurstProbeSettingsTest, LongestWaitIsThePeriodAndABurst) {
  EXPECT_EQ(test_.longest_wait(), 240'000 + 10 * 1000);
  test_.set_number(TestKeyword::kPeriod, 30);
  test_.set_number(TestKeyword::kCount, 5);
  test_.set_number(TestKeyword::kTimeout, 2000);
  EXPECT_EQ(test_.longest_wait(), 30'000 + 5 * 2000);

  const auto ping = make_test();
  ping->set_number(TestKeyword::kResponseTime, 700);
  EXPECT_EQ(ping->longest_wait(), 700);
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
  EXPECT_EQ(sockets()->receiver_state, ReceiverState::kAbsent);
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
