#include "output/status_report.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <ctime>

#include "support/model_builder.h"

namespace {

constexpr uint32_t kNow = 1'700'000'000;  // Tue Nov 14 22:13:20 2023 UTC

class StatusReportTest : public testing::Test {
 protected:
  void SetUp() override { use_time_zone("UTC"); }
  void TearDown() override { use_time_zone(nullptr); }

  static void use_time_zone(const char* zone) {
    if (zone == nullptr) {
      unsetenv("TZ");
    } else {
      setenv("TZ", zone, 1);
    }
    tzset();
  }

  std::string block(uint32_t now = kNow) const { return interface_block(snapshot_, now); }

  // The line that starts with `start`, without its newline.
  std::string line(const std::string& start, uint32_t now = kNow) const {
    const std::string text = block(now);
    const size_t at = text.find(start);
    if (at == std::string::npos) return "no such line";
    return text.substr(at, text.find('\n', at) - at);
  }

  LBInterface interface_{"eth0", false};
  InterfaceSnapshot snapshot_{interface_, {}, {}};
};

}  // namespace

TEST(StatusReportTimeTest, Units) {
  EXPECT_EQ(elapsed_text(0), "0s");
  EXPECT_EQ(elapsed_text(59), "59s");
  EXPECT_EQ(elapsed_text(60), "1m0s");
  EXPECT_EQ(elapsed_text(3599), "59m59s");
  EXPECT_EQ(elapsed_text(3600), "1h0s");
  EXPECT_EQ(elapsed_text(3605), "1h5s");
  EXPECT_EQ(elapsed_text(86399), "23h59m59s");
  EXPECT_EQ(elapsed_text(86400), "1d0s");
  EXPECT_EQ(elapsed_text(90061), "1d1h1m1s");
  EXPECT_EQ(elapsed_text(86460), "1d1m0s");
  EXPECT_EQ(elapsed_text(4294967295u), "49710d6h28m15s");
}

TEST_F(StatusReportTest, ActiveWithOneTest) {
  snapshot_.state.active = true;
  snapshot_.state.last_state_change = kNow;
  snapshot_.state.last_success = kNow - 4;
  TestReport report;
  report.description = "ping\tTarget: 192.0.2.1";
  report.result = 1;
  snapshot_.tests = {report};
  EXPECT_EQ(block(),
            "Interface:  eth0\n"
            "  Status:  active\n"
            "  Last Status Change:  Tue Nov 14 22:13:20 2023\n"
            "  +Test:  ping\tTarget: 192.0.2.1\n"
            "    Last Interface Success:  4s\t\n"
            "    Last Interface Failure:  n/a\t\t\n"
            "\n");
}

TEST_F(StatusReportTest, NeverEvaluated) {
  EXPECT_EQ(block(),
            "Interface:  eth0\n"
            "  Status:  failed\n"
            "  Last Status Change:  Thu Jan  1 00:00:00 1970\n"
            "    Last Interface Success:  n/a\t\t\n"
            "    Last Interface Failure:  n/a\t\t\n"
            "\n");
}

TEST_F(StatusReportTest, DateIsLocalTime) {
  use_time_zone("XYZ-2");
  snapshot_.state.last_state_change = kNow;
  EXPECT_EQ(line("  Last Status"), "  Last Status Change:  Wed Nov 15 00:13:20 2023");
}

TEST_F(StatusReportTest, DateIsRightBehind2038) {
  snapshot_.state.last_state_change = static_cast<int32_t>(4102444800U);
  EXPECT_EQ(line("  Last Status"), "  Last Status Change:  Fri Jan  1 00:00:00 2100");
}

TEST_F(StatusReportTest, NameIsTheConfiguredOne) {
  interface_.origin = "eth9";
  EXPECT_EQ(line("Interface:"), "Interface:  eth0");
}

TEST_F(StatusReportTest, MarkersOfTestsInOrder) {
  for (const int32_t result : {0, 1, 2, 3, -1}) {
    TestReport report;
    report.description = "t" + std::to_string(result);
    report.result = result;
    snapshot_.tests.push_back(report);
  }
  const std::string text = block();
  const size_t start = text.find("   Test:");
  ASSERT_NE(start, std::string::npos);
  EXPECT_EQ(text.substr(start, text.find("    Last") - start),
            "   Test:  t0\n"
            "  +Test:  t1\n"
            "  -Test:  t2\n"
            "  Test:  t3\n"
            "  Test:  t-1\n");
}

TEST_F(StatusReportTest, ElapsedTimes) {
  snapshot_.state.last_success = kNow;
  snapshot_.state.last_failure = kNow;
  EXPECT_EQ(line("    Last Interface Success"), "    Last Interface Success:  0s\t");
  EXPECT_EQ(line("    Last Interface Failure"), "    Last Interface Failure:  0s\t");
  EXPECT_EQ(line("    Last Interface Success", kNow + 90061),
            "    Last Interface Success:  1d1h1m1s\t");
  EXPECT_EQ(line("    Last Interface Failure", kNow + 60), "    Last Interface Failure:  1m0s\t");
}

// Only the success line hides a clock that was set back.
TEST_F(StatusReportTest, ClockSetBack) {
  snapshot_.state.last_success = kNow;
  snapshot_.state.last_failure = kNow;
  EXPECT_EQ(line("    Last Interface Success", kNow - 10), "    Last Interface Success:  0s\t");
  EXPECT_EQ(line("    Last Interface Failure", kNow - 10),
            "    Last Interface Failure:  49710d6h28m6s\t");
}
