// The record of an interface, byte for byte.
#include <gtest/gtest.h>

#include <string>

#include "output/dump_records.h"
#include "support/record_bytes.h"
#include "support/wrapped_calls.h"

namespace {

constexpr uint32_t kNow = 1'700'000'000;

class DumpRecordsOutboundTest : public testing::Test {
 protected:
  void use_ipv6() { interface_.ipv6 = true; }
  RecordBytes fill() {
    DumpOutbound record{};
    EXPECT_TRUE(fill_outbound(snapshot_, kNow, record));
    return RecordBytes(record);
  }
  TestReport& add_test(const std::string& target) {
    snapshot_.tests.emplace_back().target = target;
    return snapshot_.tests.back();
  }

  LBInterface interface_{"eth0", false};
  InterfaceSnapshot snapshot_{interface_, {}, {}};
};

}  // namespace

TEST_F(DumpRecordsOutboundTest, EveryField) {
  interface_.vrf = "red";
  interface_.nexthop = "192.0.2.1";
  interface_.source_address = "192.0.2.7";
  interface_.success_ct = 300;
  interface_.failure_ct = 70000;
  InterfaceState& state = snapshot_.state;
  state.active = true;
  state.last_success = kNow - 5;
  state.last_failure = kNow - 100000;
  state.last_state_change = kNow - 77;
  RecordBytes bytes = fill();
  EXPECT_EQ(bytes.text(0, 64), "eth0");
  EXPECT_EQ(bytes.text(64, 32), "red");
  EXPECT_EQ(bytes.text(96, 46), "192.0.2.1");
  EXPECT_EQ(bytes.text(142, 46), "192.0.2.7");
  EXPECT_EQ(bytes.number(4289), 5);
  EXPECT_EQ(bytes.number(4293), 100000);
  EXPECT_EQ(bytes.number(4297), 77);
  EXPECT_EQ(bytes.number(4301), 300);
  EXPECT_EQ(bytes.number(4305), 70000);
  EXPECT_EQ(bytes.byte(4311), 1);
  EXPECT_TRUE(bytes.rest_is_zero());  // no tests, neither dhcp nor tunnel
}

TEST_F(DumpRecordsOutboundTest, NextHopOfTheKernelsRoutes) {
  interface_.nexthop = "kernel";
  snapshot_.state.nexthop_address = "192.0.2.3";
  EXPECT_EQ(fill().text(96, 46), "192.0.2.3");
}

TEST_F(DumpRecordsOutboundTest, SourceOfTheMomentIsNone) {
  interface_.source_address = "auto";
  EXPECT_EQ(fill().text(142, 46), "");
}

TEST_F(DumpRecordsOutboundTest, DefaultsAndTimesThatNeverWere) {
  RecordBytes bytes = fill();
  EXPECT_EQ(bytes.text(0, 64), "eth0");
  EXPECT_EQ(bytes.text(64, 32), "default");
  EXPECT_EQ(bytes.number(4301), 3);
  EXPECT_EQ(bytes.number(4305), 1);
  EXPECT_TRUE(bytes.rest_is_zero());
}

TEST_F(DumpRecordsOutboundTest, DhcpShowsWhatWasFound) {
  interface_.nexthop = "dhcp";
  snapshot_.state.nexthop_address = "192.0.2.99";
  RecordBytes bytes = fill();
  EXPECT_EQ(bytes.text(96, 46), "192.0.2.99");
  EXPECT_EQ(bytes.byte(4309), 1);
  EXPECT_EQ(bytes.byte(4310), 0);
}

TEST_F(DumpRecordsOutboundTest, TunnelShowsWhatWasFound) {
  interface_.nexthop = "tunnel";
  RecordBytes bytes = fill();
  EXPECT_EQ(bytes.text(96, 46), "");
  EXPECT_EQ(bytes.byte(4309), 0);
  EXPECT_EQ(bytes.byte(4310), 1);
}

TEST_F(DumpRecordsOutboundTest, LongTextsAreCut) {
  interface_.name = std::string(100, 'n');
  interface_.vrf = std::string(100, 'v');
  interface_.nexthop = std::string(100, 'h');
  interface_.source_address = std::string(100, 's');
  add_test(std::string(100, 't'));
  RecordBytes bytes = fill();
  EXPECT_EQ(bytes.text(0, 64), std::string(63, 'n'));
  EXPECT_EQ(bytes.text(64, 32), std::string(31, 'v'));
  EXPECT_EQ(bytes.text(96, 46), std::string(15, 'h'));
  EXPECT_EQ(bytes.text(142, 46), std::string(15, 's'));
  EXPECT_EQ(bytes.text(188, 46), std::string(15, 't'));

  use_ipv6();
  RecordBytes bytes6 = fill();
  EXPECT_EQ(bytes6.text(96, 46), std::string(45, 'h'));
  EXPECT_EQ(bytes6.text(142, 46), std::string(45, 's'));
  EXPECT_EQ(bytes6.text(188, 46), std::string(45, 't'));
}

TEST_F(DumpRecordsOutboundTest, LongestAddressesFit) {
  interface_.nexthop = "255.255.255.255";
  EXPECT_EQ(fill().text(96, 46), "255.255.255.255");
  use_ipv6();
  interface_.nexthop = "2001:db8:aaaa:bbbb:cccc:dddd:255.255.255.255";
  EXPECT_EQ(fill().text(96, 46), interface_.nexthop);
}

TEST_F(DumpRecordsOutboundTest, UnspecifiedIpv6SourceIsLeftOut) {
  interface_.source_address = "::";
  EXPECT_EQ(fill().text(142, 46), "::");  // an IPv4 interface makes no exception
  use_ipv6();
  EXPECT_EQ(fill().text(142, 46), "");
  interface_.source_address = "2001:db8::7";
  EXPECT_EQ(fill().text(142, 46), "2001:db8::7");
}

TEST_F(DumpRecordsOutboundTest, StampInTheFutureGivesANegativeAge) {
  snapshot_.state.last_success = kNow + 10;
  EXPECT_EQ(fill().number(4289), -10);
}

TEST_F(DumpRecordsOutboundTest, TestEntry) {
  TestReport& report = add_test("192.0.2.50");
  report.result = 2;
  report.resp_time = 5000;
  add_test("192.0.2.51").result = 1;
  snapshot_.state.success_counts = {{"192.0.2.50", 2}, {"192.0.2.51", 3}};
  snapshot_.state.failure_counts = {{"192.0.2.50", 70000}};
  RecordBytes bytes = fill();
  EXPECT_EQ(bytes.byte(4288), 2);
  EXPECT_EQ(bytes.text(188, 46), "192.0.2.50");
  EXPECT_EQ(bytes.number(188 + 46), 2);
  EXPECT_EQ(bytes.number(188 + 50), 70000);
  EXPECT_EQ(bytes.byte(188 + 54), 2);
  EXPECT_EQ(bytes.byte(188 + 55), 0);
  EXPECT_EQ(bytes.byte(188 + 56), 5000 % 256);
  EXPECT_EQ(bytes.byte(188 + 57), 0);
  EXPECT_EQ(bytes.text(270, 46), "192.0.2.51");
  EXPECT_EQ(bytes.number(270 + 46), 3);
  EXPECT_EQ(bytes.byte(270 + 54), 1);
  bytes.text(0, 64);
  bytes.text(64, 32);
  bytes.number(4301);
  bytes.number(4305);
  EXPECT_TRUE(bytes.rest_is_zero());
}

TEST_F(DumpRecordsOutboundTest, TestWithMeasurement) {
  TestReport& report = add_test("192.0.2.50");
  report.result = 1;
  report.measurement = {1, 20, 300, 4000, 50000, 600000};
  RecordBytes bytes = fill();
  EXPECT_EQ(bytes.byte(188 + 55), 1);
  const int32_t expected[] = {1, 20, 300, 4000, 50000, 600000};
  for (size_t i = 0; i < 6; ++i) EXPECT_EQ(bytes.number(188 + 58 + 4 * i), expected[i]);
}

TEST_F(DumpRecordsOutboundTest, Ipv6TestEntry) {
  use_ipv6();
  TestReport& report = add_test("2001:db8::50");
  report.result = 1;
  report.resp_time = 255;
  report.measurement = {1, 2, 3, 4, 5, 6};  // an IPv6 entry has none, whatever the test says
  RecordBytes bytes = fill();
  EXPECT_EQ(bytes.text(188, 46), "2001:db8::50");
  EXPECT_EQ(bytes.byte(188 + 54), 1);
  EXPECT_EQ(bytes.byte(188 + 55), 0);
  EXPECT_EQ(bytes.byte(188 + 56), 255);
  EXPECT_EQ(bytes.byte(188 + 57), 1);
  for (size_t i = 0; i < 6; ++i) EXPECT_EQ(bytes.number(188 + 58 + 4 * i), 0);
}

TEST_F(DumpRecordsOutboundTest, TestWithoutTargetShowsTheNextHop) {
  interface_.nexthop = "192.0.2.1";
  snapshot_.state.success_counts = {{"192.0.2.1", 2}};
  add_test("");
  RecordBytes bytes = fill();
  EXPECT_EQ(bytes.text(188, 46), "192.0.2.1");
  EXPECT_EQ(bytes.number(188 + 46), 2);
  EXPECT_EQ(bytes.number(188 + 50), 0);
}

TEST_F(DumpRecordsOutboundTest, AtMostFiftyTests) {
  for (int i = 0; i < 51; ++i) add_test("192.0.2." + std::to_string(i));
  RecordBytes bytes = fill();
  EXPECT_EQ(bytes.byte(4288), 50);
  EXPECT_EQ(bytes.text(188 + 49 * 82, 46), "192.0.2.49");
  EXPECT_EQ(bytes.number(4289), 0);  // the 51st did not run into what follows
}

TEST_F(DumpRecordsOutboundTest, EveryTextMayFail) {
  interface_.nexthop = "192.0.2.1";
  interface_.source_address = "192.0.2.7";
  add_test("192.0.2.50");
  constexpr int kTexts = 5;
  for (int i = 0; i <= kTexts; ++i) {
    const Fault fault("vsnprintf", EOVERFLOW, i, 1);
    DumpOutbound record{};
    EXPECT_EQ(fill_outbound(snapshot_, kNow, record), i == kTexts) << i;
  }
}
