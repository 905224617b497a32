// The metrics, and what is counted between two looks.
#include "lbctl/metrics_text.h"

#include <gtest/gtest.h>

#include "lbctl/sample_dumps.h"

namespace lbctl {
namespace {

constexpr WrittenTimes kWritten{.ipv4 = 20000, .ipv6 = 20005};

Dumps sample() {
  Dumps dumps;
  dumps.newest = {.tv_sec = 20005, .tv_nsec = 900};
  InterfaceDump wan1 = interface_dump("wan1", true, "192.0.2.1");
  wan1.tests = {test_dump("198.51.100.7", 1), test_dump("198.51.100.8", 2),
                test_dump("198.51.100.9", 0)};
  wan1.tests[1].measurement = {4, 40, 35, 50, 20, 200};
  InterfaceDump wan1_ipv6 = interface_dump("wan1", false, "", true);
  wan1_ipv6.vrf = "blue";
  dumps.interfaces = {wan1, wan1_ipv6};
  dumps.rules = {rule_dump(1, true, {}, {{"0.0.0.0/0", "192.0.2.1"}, {"10.0.0.0/8", ""}}),
                 rule_dump(2, true, {}, {{"0.0.0.0/0", "192.0.2.1"}})};
  return dumps;
}

TEST(MetricsTextTest, WholeText) {
  EXPECT_EQ(metrics_text(sample(), kWritten, std::nullopt),
            R"(# HELP wan_lb_interface_active Whether routes may use the interface.
# TYPE wan_lb_interface_active gauge
wan_lb_interface_active{interface="wan1",family="ipv4",vrf="default"} 1
wan_lb_interface_active{interface="wan1",family="ipv6",vrf="blue"} 0
# HELP wan_lb_interface_last_change_timestamp_seconds When the interface's state last changed, or its worker was started.
# TYPE wan_lb_interface_last_change_timestamp_seconds gauge
wan_lb_interface_last_change_timestamp_seconds{interface="wan1",family="ipv4",vrf="default"} 8000
wan_lb_interface_last_change_timestamp_seconds{interface="wan1",family="ipv6",vrf="blue"} 8005
# HELP wan_lb_test_success Whether the target's last probe succeeded; of several tests, all of theirs.
# TYPE wan_lb_test_success gauge
wan_lb_test_success{interface="wan1",family="ipv4",vrf="default",target="198.51.100.8"} 0
wan_lb_test_success{interface="wan1",family="ipv4",vrf="default",target="198.51.100.7"} 1
# HELP wan_lb_test_loss_ratio Loss of the last burst, 0 to 1.
# TYPE wan_lb_test_loss_ratio gauge
wan_lb_test_loss_ratio{interface="wan1",family="ipv4",vrf="default",target="198.51.100.8"} 0.4
# HELP wan_lb_test_rtt_seconds Mean round trip time of the last burst.
# TYPE wan_lb_test_rtt_seconds gauge
wan_lb_test_rtt_seconds{interface="wan1",family="ipv4",vrf="default",target="198.51.100.8"} 0.035
# HELP wan_lb_test_jitter_seconds Longest round trip time of the last burst less the mean one.
# TYPE wan_lb_test_jitter_seconds gauge
wan_lb_test_jitter_seconds{interface="wan1",family="ipv4",vrf="default",target="198.51.100.8"} 0.004
# HELP wan_lb_route_nexthop_info The next hop that a failover rule has chosen for the destination; always 1.
# TYPE wan_lb_route_nexthop_info gauge
wan_lb_route_nexthop_info{destination="0.0.0.0/0",nexthop="192.0.2.1",family="ipv4",vrf="default"} 1
# HELP wan_lb_last_write_timestamp_seconds When the daemon last wrote its dump files.
# TYPE wan_lb_last_write_timestamp_seconds gauge
wan_lb_last_write_timestamp_seconds 20005
)");
}

TEST(MetricsTextTest, LargeTimesAreWrittenOut) {
  Dumps dumps;
  dumps.newest.tv_sec = 1795388384;
  EXPECT_NE(metrics_text(dumps, {}, std::nullopt)
                .find("\nwan_lb_last_write_timestamp_seconds 1795388384\n"),
            std::string::npos);
}

TEST(MetricsTextTest, LabelValuesAreEscaped) {
  Dumps dumps;
  dumps.interfaces = {interface_dump("a\"b\\c\nd\x01\xFF", true, "")};
  EXPECT_NE(metrics_text(dumps, kWritten, std::nullopt)
                .find(R"({interface="a\"b\\c\nd??",family="ipv4",vrf="default"} 1)"),
            std::string::npos);
}

TEST(MetricsTextTest, ATargetThatIsProbedInTwoWaysHasOneSeries) {
  Dumps dumps;
  dumps.interfaces = {interface_dump("wan1", true, "")};
  dumps.interfaces[0].tests = {test_dump("x", 1), test_dump("x", 2), test_dump("x", 1)};
  dumps.interfaces[0].tests[2].measurement = {4, 0, 35, 50, 20, 200};
  const Samples samples = read_samples(metrics_text(dumps, kWritten, std::nullopt));
  EXPECT_EQ(
      samples.at(R"(wan_lb_test_success{interface="wan1",family="ipv4",vrf="default",target="x"})"),
      0);
  EXPECT_EQ(
      samples.at(
          R"(wan_lb_test_rtt_seconds{interface="wan1",family="ipv4",vrf="default",target="x"})"),
      0.035);
}

TEST(ReadSamplesTest, TakesSeriesAndPassesOverTheRest) {
  const Samples samples = read_samples(
      "# HELP a b 7\na 1\nb{x=\"y z\"} 2.5\n\nnonsense\nc x\nd 1x\ne nan\nf +Inf\ng 1 2\nh 3");
  EXPECT_EQ(samples, (Samples{{"a", 1}, {"b{x=\"y z\"}", 2.5}, {"g 1", 2}, {"h", 3}}));
  EXPECT_TRUE(read_samples("").empty());
}

// The counter over a row of looks at one interface.
class ChangesTest : public testing::Test {
 protected:
  // The counter after a look at `now`, at a state that was entered at `since`.
  double look(std::time_t now, bool active, std::time_t since, int32_t success_age = 1) {
    Dumps dumps;
    dumps.interfaces = {interface_dump("wan1", active, "")};
    dumps.interfaces[0].change_age = static_cast<int32_t>(now - since);
    dumps.interfaces[0].success_age = success_age;
    text_ = metrics_text(dumps, {.ipv4 = now, .ipv6 = 0}, read_samples(text_));
    return sample("wan_lb_interface_state_changes_total");
  }
  double sample(const std::string& name) const {
    return read_samples(text_).at(name + R"({interface="wan1",family="ipv4",vrf="default"})");
  }

  std::string text_;
};

TEST_F(ChangesTest, CountsFromTheFirstLookOn) {
  EXPECT_EQ(look(1000, true, 500), 0);
  EXPECT_EQ(look(1060, true, 500), 0);
  EXPECT_EQ(look(1120, false, 1100), 1);
  EXPECT_EQ(look(1180, false, 1100), 1);
  EXPECT_EQ(look(1240, true, 1200), 2);
  EXPECT_EQ(sample("wan_lb_interface_last_change_timestamp_seconds"), 1200);
}

TEST_F(ChangesTest, AStateThatWasLeftBetweenTwoLooks) {
  look(1000, true, 500);
  EXPECT_EQ(look(1060, true, 1030), 2);
  look(1120, false, 1100);
  EXPECT_EQ(look(1180, false, 1150, 40), 5);
}

TEST_F(ChangesTest, OneMomentIsTheSameHoweverItsAgeIsRounded) {
  look(1000, true, 500);
  EXPECT_EQ(look(1060, true, 501), 0);
  EXPECT_EQ(look(1120, true, 499), 0);
  EXPECT_EQ(sample("wan_lb_interface_last_change_timestamp_seconds"), 500);
}

TEST_F(ChangesTest, AnotherStartIsNoChangeOfAFailedInterface) {
  look(1000, false, 500);
  EXPECT_EQ(look(1060, false, 1050, 0), 0) << "never healthy since";
  EXPECT_EQ(sample("wan_lb_interface_last_change_timestamp_seconds"), 1050);
}

TEST_F(ChangesTest, TheCounterIsThereOnlyWhereItIsKept) {
  EXPECT_EQ(metrics_text(lbctl::sample(), kWritten, std::nullopt).find("state_changes"),
            std::string::npos);
}

}  // namespace
}  // namespace lbctl
