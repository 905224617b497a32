// What changes of state add up to, as figures, text and document.
#include "lbctl/history_summary.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <ctime>
#include <string>
#include <vector>

#include "lbctl/history_output.h"

using namespace lbctl;

namespace {

constexpr int64_t kSecond = 1'000'000;
constexpr int64_t kStart = 1'770'000'000;  // 2026-02-02T02:40:00Z

StateChange change(int64_t second, const char* interface, bool active, bool ipv6 = false) {
  return {(kStart + second) * kSecond, interface, ipv6, active};
}

std::vector<StateChange> some() {
  return {change(0, "wan1", false),  change(0, "wan2", false),       change(10, "wan1", true),
          change(20, "wan2", true),  change(20, "wan1", true, true), change(50, "wan1", false),
          change(60, "wan1", false),  // a restart says it again
          change(75, "wan1", true)};
}

TEST(History, CountsFromTheFirstLine) {
  const History history = summarize(some(), std::nullopt, (kStart + 100) * kSecond);
  EXPECT_EQ(history.begin, kStart * kSecond);
  ASSERT_EQ(history.interfaces.size(), 3U);
  EXPECT_EQ(history.interfaces[0].name, "wan1");
  EXPECT_DOUBLE_EQ(*history.interfaces[0].availability_percent, 65.0);  // 10-50 and 75-100
  EXPECT_EQ(history.interfaces[0].changes, 4U);
  EXPECT_EQ(history.interfaces[0].flaps, 1U);
  EXPECT_DOUBLE_EQ(*history.interfaces[0].flaps_per_day, 864.0);
  EXPECT_DOUBLE_EQ(*history.interfaces[1].availability_percent, 80.0);
  // Known from second 20 on: what was before is not counted.
  EXPECT_TRUE(history.interfaces[2].ipv6);
  EXPECT_DOUBLE_EQ(*history.interfaces[2].availability_percent, 100.0);
  ASSERT_EQ(history.changes.size(), 7U);
  EXPECT_EQ(history.changes[2].duration, 40 * kSecond);
  EXPECT_EQ(history.changes[6].duration, 25 * kSecond);
}

TEST(History, AStateFromBeforeTheSpanIsKnownInIt) {
  const History history = summarize(some(), (kStart + 40) * kSecond, (kStart + 60) * kSecond);
  EXPECT_DOUBLE_EQ(*history.interfaces[0].availability_percent, 50.0);
  EXPECT_EQ(history.interfaces[0].changes, 1U);
  EXPECT_EQ(history.interfaces[0].flaps, 1U);
  ASSERT_EQ(history.changes.size(), 1U);
  EXPECT_EQ(history.changes[0].duration, 10 * kSecond);
  EXPECT_DOUBLE_EQ(*history.interfaces[1].availability_percent, 100.0);
}

TEST(History, WithoutLinesThereIsNothing) {
  const History history = summarize({}, std::nullopt, kStart * kSecond);
  EXPECT_TRUE(history.interfaces.empty());
  EXPECT_EQ(history_text(history, false), "no state change of an interface is logged\n");
}

TEST(History, LinesAfterTheSpanDoNotCount) {
  const History history = summarize(some(), std::nullopt, (kStart - 5) * kSecond);
  EXPECT_TRUE(history.interfaces.empty());
}

TEST(History, Text) {
  const History history = summarize(
      {change(0, "wan1", false), change(10, "Provider B", true, true), change(30, "wan1", true)},
      std::nullopt, (kStart + 120) * kSecond);
  EXPECT_EQ(history_text(history, false),
            "from 2026-02-02T02:40:00Z to 2026-02-02T02:42:00Z\n\n"
            "INTERFACE     AVAILABILITY  CHANGES   FLAPS/DAY\n"
            "wan1              75.000 %        2        0.00\n"
            "Provider B/6     100.000 %        1        0.00\n\n"
            "2026-02-02T02:40:00Z  wan1          FAILED  for 30 s\n"
            "2026-02-02T02:40:10Z  Provider B/6  ACTIVE  for 1 min 50 s\n"
            "2026-02-02T02:40:30Z  wan1          ACTIVE  for 1 min 30 s\n");
}

TEST(History, Document) {
  const History history = summarize({change(0, "wan1", false), change(30, "wan1", true)},
                                    std::nullopt, (kStart + 120) * kSecond + 500'000);
  const Json document = history_document(history);
  EXPECT_EQ(document.dump(),
            R"({"schema":"wan_lb/history/1","interfaces":[{"name":"wan1","family":4,)"
            R"("availability_percent":75.103734,"changes":2,"flaps_per_day":0.0}],"changes":[)"
            R"({"time":"2026-02-02T02:40:00Z","interface":"wan1","family":4,"state":"failed",)"
            R"("duration":30.0},{"time":"2026-02-02T02:40:30Z","interface":"wan1","family":4,)"
            R"("state":"active","duration":90.5}]})");
}

TEST(History, Picture) {
  const std::string svg =
      history_picture(summarize(some(), std::nullopt, (kStart + 100) * kSecond));
  EXPECT_NE(svg.find(">wan1/6<"), std::string::npos);
  EXPECT_NE(svg.find(">65.000 %<"), std::string::npos);
  EXPECT_NE(svg.find("failed, 2026-02-02T02:40:50Z to 2026-02-02T02:41:15Z"), std::string::npos)
      << svg;
}

TEST(History, TimesOfOptions) {
  setenv("TZ", "UTC", 1);
  tzset();
  const auto seconds = [](const char* text) {
    const auto time = parse_history_time(text, kStart);
    return time ? *time / kSecond : -1;
  };
  EXPECT_EQ(seconds("2026-02-02T02:40:00Z"), kStart);
  EXPECT_EQ(seconds("2026-02-02T03:40:00+01:00"), kStart);
  EXPECT_EQ(seconds("2026-02-02"), 1'769'990'400);
  EXPECT_EQ(seconds("7d"), kStart - 7 * 86400);
  EXPECT_EQ(seconds("24h"), kStart - 86400);
  EXPECT_EQ(seconds("30m"), kStart - 1800);
  EXPECT_EQ(seconds("0s"), kStart);
  EXPECT_EQ(seconds("2w"), kStart - 14 * 86400);
  for (const char* text :
       {"", "d", "7", "7 d", "-7d", "+7d", "7dd", "7y", "2026-02-30", "2026-02-02T02:40:00Zx",
        "yesterday", "99999999999999999999d", "999999999w"})
    EXPECT_EQ(seconds(text), -1) << text;
}

}  // namespace
