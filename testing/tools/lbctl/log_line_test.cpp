// Lines of a log: which of them tell a change of state, and when.
#include "lbctl/log_line.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <ctime>
#include <string>

using namespace lbctl;

namespace {

constexpr std::time_t kNow = 1'770'000'000;  // 2026-02-02T02:40:00Z

std::optional<StateChange> parse(const std::string& line, std::time_t now = kNow) {
  return parse_log_line(line, now);
}

class LogLine : public testing::Test {
 protected:
  void SetUp() override { set_zone("UTC"); }
  void TearDown() override { set_zone("UTC"); }
  static void set_zone(const char* zone) {
    setenv("TZ", zone, 1);
    tzset();
  }
};

const std::string kActive = "%WAN-I-INSTANCE: IP interface wan1 changed state to active";

TEST_F(LogLine, ClassicStamp) {
  const auto change = parse("Feb  1 03:04:05 router wan_lb[123]: " + kActive);
  ASSERT_TRUE(change);
  EXPECT_EQ(change->time, 1'769'915'045'000'000);
  EXPECT_EQ(change->interface, "wan1");
  EXPECT_FALSE(change->ipv6);
  EXPECT_TRUE(change->active);
  EXPECT_TRUE(parse("Feb 01 03:04:05 router wan_lb: " + kActive));
  EXPECT_TRUE(parse("Feb  1 03:04:05 wan_lb[123]: " + kActive)) << "without a host name";
}

TEST_F(LogLine, TheYearIsTheLastInWhichItDoesNotLieAhead) {
  const auto time_of = [](const char* stamp) {
    return parse(std::string(stamp) + " router wan_lb[1]: " + kActive)->time / 1'000'000;
  };
  EXPECT_EQ(time_of("Feb  2 02:40:00"), kNow);
  EXPECT_EQ(time_of("Feb  2 02:40:01"), kNow + 1 - 365 * 86400);
  EXPECT_EQ(time_of("Dec 31 23:59:59"), 1'767'225'599);
  EXPECT_EQ(time_of("Feb 29 00:00:00"), 1'709'164'800) << "2024 had one";
}

TEST_F(LogLine, ClassicStampsAreLocalTime) {
  set_zone("CET-1CEST");
  EXPECT_EQ(parse("Jan 31 12:00:00 router wan_lb[1]: " + kActive)->time, 1'769'857'200'000'000);
}

TEST_F(LogLine, Rfc3339Stamps) {
  for (const char* stamp : {"2026-01-31T12:00:00.250+01:00", "2026-01-31T11:00:00.25Z",
                            "2026-01-31T12:00:00.250000+0100", "2026-01-31T06:00:00.25-05:00"}) {
    const auto change = parse(std::string(stamp) + " router wan_lb[1]: " + kActive);
    ASSERT_TRUE(change) << stamp;
    EXPECT_EQ(change->time, 1'769'857'200'250'000) << stamp;
  }
}

TEST_F(LogLine, NamesMayHaveBlanks) {
  const auto name_of = [](const std::string& name) {
    return parse("Feb  1 03:04:05 router wan_lb[1]: %WAN-I-INSTANCE: IPv6 interface " + name +
                 " changed state to inactive")
        ->interface;
  };
  for (const char* name : {"wan1", "Provider A, fibre", " x ", "a changed state to active",
                           "b last check target 192.0.2.1 success"})
    EXPECT_EQ(name_of(name), name);
  EXPECT_TRUE(
      parse("Feb  1 03:04:05 r wan_lb[1]: %WAN-I-INSTANCE: IPv6 interface x changed state to "
            "inactive")
          ->ipv6);
}

TEST_F(LogLine, WhatAnInterruptedRotationLeavesIsReadOver) {
  EXPECT_TRUE(parse(std::string(20, '\0') + "Feb  1 03:04:05 router wan_lb[1]: " + kActive));
  EXPECT_FALSE(parse("ter wan_lb[1]: " + kActive));
  EXPECT_FALSE(parse(kActive));
}

TEST_F(LogLine, OtherLinesAreNothing) {
  const std::string stamp = "Feb  1 03:04:05 router ";
  for (const std::string& line :
       {std::string(),
        stamp,
        stamp + "wan_lb[1]:",
        stamp + "wan_lb[1]: %WAN-I-INSTANCE: IP",
        stamp + "sudo[1]: root : COMMAND=/usr/bin/logger " + kActive,
        stamp + "wan_lbx[1]: " + kActive,
        stamp + "wan_lb[1x]: " + kActive,
        stamp + "wan_lb[1] " + kActive,
        stamp + "wan_lb[1]: x" + kActive,
        stamp + "wan_lb[1]: %WAN-I-INSTANCE: IP interface  changed state to active"
                "s",
        stamp + "wan_lb[1]: %WAN-I-INSTANCE: IP interface changed state to active",
        stamp + "wan_lb[1]: %WAN-I-INSTANCE: IP interface wan1 last check target 192.0.2.1 success",
        stamp + "wan_lb[1]: %WAN-I-INSTANCE: wan_lb: rule 1_ipv4: IPv4 routes follow",
        std::string("Foo  1 03:04:05 router wan_lb[1]: ") + kActive,
        std::string("Feb 30 03:04:05 router wan_lb[1]: ") + kActive,
        std::string("Feb  1 25:04:05 router wan_lb[1]: ") + kActive,
        std::string("2026-13-01T00:00:00Z router wan_lb[1]: ") + kActive,
        std::string("2026-02-29T00:00:00Z router wan_lb[1]: ") + kActive,
        std::string("2026-02-01T00:00:00+1 router wan_lb[1]: ") + kActive,
        std::string("2026-02-01T00:00:00Zrouter wan_lb[1]: ") + kActive})
    EXPECT_FALSE(parse(line)) << line;
}

}  // namespace
