#include "output/dump_records.h"

#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

#include "support/model_builder.h"
#include "support/wrapped_calls.h"

namespace {

constexpr uint32_t kNow = 1'700'000'000;

// A record as a reader sees it: bytes at offsets, of which those not asked for must be zero.
class Bytes {
 public:
  template <typename Record>
  explicit Bytes(const Record& record)
      : bytes_(reinterpret_cast<const char*>(&record),
               reinterpret_cast<const char*>(&record) + sizeof(record)) {}

  // The text of a field, the rest of which has to be zero.
  std::string text(size_t offset, size_t size) {
    const std::string field(&bytes_.at(offset), size);
    const std::string text = field.c_str();
    EXPECT_LT(text.size(), size) << "no NUL byte at the end";
    EXPECT_EQ(field.substr(text.size()), std::string(size - text.size(), '\0'));
    clear(offset, size);
    return text;
  }
  int32_t number(size_t offset) {
    int32_t value = 0;
    memcpy(&value, &bytes_.at(offset), sizeof(value));
    clear(offset, sizeof(value));
    return value;
  }
  int byte(size_t offset) {
    const int value = static_cast<unsigned char>(bytes_.at(offset));
    clear(offset, 1);
    return value;
  }
  bool rest_is_zero() const { return bytes_ == std::vector<char>(bytes_.size(), '\0'); }

 private:
  void clear(size_t offset, size_t size) { memset(&bytes_.at(offset), 0, size); }

  std::vector<char> bytes_;
};

class DumpRecordsOutboundTest : public testing::Test {
 protected:
  void use_ipv6() { interface_.ipv6 = true; }
  Bytes fill() {
    DumpOutbound record{};
    EXPECT_TRUE(fill_outbound(snapshot_, kNow, record));
    return Bytes(record);
  }
  TestReport& add_test(const std::string& target) {
    snapshot_.tests.emplace_back().target = target;
    return snapshot_.tests.back();
  }

  LBInterface interface_{"eth0", false};
  InterfaceSnapshot snapshot_{interface_, {}, {}};
};

class DumpRecordsRuleTest : public testing::Test {
 protected:
  Bytes fill(const RuleKey& key = {3, 4}) {
    DumpRule record{};
    EXPECT_TRUE(fill_rule(key, rule_, config_, record));
    return Bytes(record);
  }

  LBConfig config_;
  LBRule rule_;
};

Bytes route(const RuleKey& key, const std::string& destination, int32_t metric, int32_t index,
            const std::string& nexthop) {
  DumpRoute record{};
  EXPECT_TRUE(fill_route(key, destination, LBTarget{metric}, index, nexthop, record));
  return Bytes(record);
}

}  // namespace

// --- outbounds ---

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
  Bytes bytes = fill();
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

TEST_F(DumpRecordsOutboundTest, DefaultsAndTimesThatNeverWere) {
  Bytes bytes = fill();
  EXPECT_EQ(bytes.text(0, 64), "eth0");
  EXPECT_EQ(bytes.text(64, 32), "default");
  EXPECT_EQ(bytes.number(4301), 3);
  EXPECT_EQ(bytes.number(4305), 1);
  EXPECT_TRUE(bytes.rest_is_zero());
}

TEST_F(DumpRecordsOutboundTest, DhcpShowsWhatWasFound) {
  interface_.nexthop = "dhcp";
  snapshot_.state.nexthop_address = "192.0.2.99";
  Bytes bytes = fill();
  EXPECT_EQ(bytes.text(96, 46), "192.0.2.99");
  EXPECT_EQ(bytes.byte(4309), 1);
  EXPECT_EQ(bytes.byte(4310), 0);
}

TEST_F(DumpRecordsOutboundTest, TunnelShowsWhatWasFound) {
  interface_.nexthop = "tunnel";
  Bytes bytes = fill();
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
  Bytes bytes = fill();
  EXPECT_EQ(bytes.text(0, 64), std::string(63, 'n'));
  EXPECT_EQ(bytes.text(64, 32), std::string(31, 'v'));
  EXPECT_EQ(bytes.text(96, 46), std::string(15, 'h'));
  EXPECT_EQ(bytes.text(142, 46), std::string(15, 's'));
  EXPECT_EQ(bytes.text(188, 46), std::string(15, 't'));

  use_ipv6();
  Bytes bytes6 = fill();
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
  Bytes bytes = fill();
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
  Bytes bytes = fill();
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
  Bytes bytes = fill();
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
  Bytes bytes = fill();
  EXPECT_EQ(bytes.text(188, 46), "192.0.2.1");
  EXPECT_EQ(bytes.number(188 + 46), 2);
  EXPECT_EQ(bytes.number(188 + 50), 0);
}

TEST_F(DumpRecordsOutboundTest, AtMostFiftyTests) {
  for (int i = 0; i < 51; ++i) add_test("192.0.2." + std::to_string(i));
  Bytes bytes = fill();
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

// --- rules ---

TEST(DumpRecordsKeyTest, NumberAndVersion) {
  const auto key = parse_rule_key("3_ipv6");
  ASSERT_TRUE(key);
  EXPECT_EQ(key->number, 3);
  EXPECT_TRUE(key->is_ipv6());
  const auto key4 = parse_rule_key("0012_ipv4");
  ASSERT_TRUE(key4);
  EXPECT_EQ(key4->number, 12);
  EXPECT_FALSE(key4->is_ipv6());
  EXPECT_EQ(parse_rule_key("-5_ipv6")->number, -5);
  EXPECT_EQ(parse_rule_key("7_ipv44")->version, 44);
}

TEST(DumpRecordsKeyTest, EverythingElseIsRefused) {
  for (const char* name :
       {"", "1", "3_ipv", "ipv4", "a_ipv4", "3ipv4", "3 ipv4", "3_IPV4", "_ipv4"}) {
    EXPECT_FALSE(parse_rule_key(name)) << name;
  }
}

TEST_F(DumpRecordsRuleTest, EveryField) {
  rule_.vrf = "red";
  rule_.failover = 1;
  rule_.members["eth1"] = {.ipv6 = true, .weight = 300};
  rule_.members["eth0"] = {.ipv6 = false, .weight = 200};
  Bytes bytes = fill({3, 6});
  EXPECT_EQ(bytes.text(0, 64), "eth0");
  EXPECT_EQ(bytes.byte(64), 200);
  EXPECT_EQ(bytes.byte(65), 0);
  EXPECT_EQ(bytes.text(66, 64), "eth1");
  EXPECT_EQ(bytes.byte(66 + 64), 300 % 256);
  EXPECT_EQ(bytes.byte(66 + 65), 1);
  EXPECT_EQ(bytes.byte(3300), 2);
  EXPECT_EQ(bytes.text(3301, 32), "red");
  EXPECT_EQ(bytes.number(3333), 0);
  EXPECT_EQ(bytes.number(3337), 3);
  EXPECT_EQ(bytes.byte(3341), 1);
  EXPECT_EQ(bytes.byte(3342), 1);
  EXPECT_TRUE(bytes.rest_is_zero());
}

TEST_F(DumpRecordsRuleTest, Ipv4WithoutFailover) {
  Bytes bytes = fill({70000, 4});
  EXPECT_EQ(bytes.text(3301, 32), "default");
  EXPECT_EQ(bytes.number(3337), 70000);
  EXPECT_TRUE(bytes.rest_is_zero());
}

TEST_F(DumpRecordsRuleTest, MemberIsNamedByItsOriginInItsFamily) {
  add_interface(config_, "wan1").origin = "eth4";
  add_interface(config_, "wan1", true).origin = "eth6";
  add_interface(config_, "wan2").origin = "";
  rule_.members["wan1"].ipv6 = true;
  rule_.members["wan2"];  // an empty origin says nothing
  rule_.members["wan3"];  // not in the health section
  Bytes bytes = fill();
  EXPECT_EQ(bytes.text(0, 64), "eth6");
  EXPECT_EQ(bytes.text(66, 64), "wan2");
  EXPECT_EQ(bytes.text(132, 64), "wan3");
  rule_.members["wan1"].ipv6 = false;
  EXPECT_EQ(fill().text(0, 64), "eth4");
}

TEST_F(DumpRecordsRuleTest, AtMostFiftyMembers) {
  for (int i = 100; i < 151; ++i) rule_.members["eth" + std::to_string(i)].weight = 1;
  Bytes bytes = fill();
  EXPECT_EQ(bytes.byte(3300), 50);
  EXPECT_EQ(bytes.text(49 * 66, 64), "eth149");
  EXPECT_EQ(bytes.text(3301, 32), "default");
}

TEST_F(DumpRecordsRuleTest, EveryTextMayFail) {
  rule_.members["eth0"];
  for (int i = 0; i <= 2; ++i) {
    const Fault fault("vsnprintf", EOVERFLOW, i, 1);
    DumpRule record{};
    EXPECT_EQ(fill_rule({1, 4}, rule_, config_, record), i == 2) << i;
  }
}

// --- routes ---

TEST(DumpRecordsRouteTest, EveryField) {
  Bytes bytes = route({3, 6}, "2001:db8::/32", 70000, 2, "fe80::1");
  EXPECT_EQ(bytes.text(0, 50), "2001:db8::/32");
  EXPECT_EQ(bytes.text(50, 46), "fe80::1");
  EXPECT_EQ(bytes.number(96), 70000);
  EXPECT_EQ(bytes.number(100), 2);
  EXPECT_EQ(bytes.number(104), 3);
  EXPECT_EQ(bytes.byte(108), 1);
  EXPECT_TRUE(bytes.rest_is_zero());
}

TEST(DumpRecordsRouteTest, Ipv4WithoutNextHopAndMetric) {
  Bytes bytes = route({3, 4}, "255.255.255.255/32", -1, 1, "");
  EXPECT_EQ(bytes.text(0, 50), "255.255.255.255/32");
  EXPECT_EQ(bytes.number(96), -1);
  EXPECT_EQ(bytes.number(100), 1);
  EXPECT_EQ(bytes.number(104), 3);
  EXPECT_TRUE(bytes.rest_is_zero());
}

TEST(DumpRecordsRouteTest, LongTextsAreCut) {
  Bytes bytes = route({3, 4}, std::string(100, 'd'), 0, 1, std::string(100, 'n'));
  EXPECT_EQ(bytes.text(0, 50), std::string(18, 'd'));
  EXPECT_EQ(bytes.text(50, 46), std::string(15, 'n'));
  Bytes bytes6 = route({3, 6}, std::string(100, 'd'), 0, 1, std::string(100, 'n'));
  EXPECT_EQ(bytes6.text(0, 50), std::string(49, 'd'));
  EXPECT_EQ(bytes6.text(50, 46), std::string(45, 'n'));
}

TEST(DumpRecordsRouteTest, EveryTextMayFail) {
  for (int i = 0; i <= 2; ++i) {
    const Fault fault("vsnprintf", EOVERFLOW, i, 1);
    DumpRoute record{};
    EXPECT_EQ(fill_route({1, 4}, "10.0.0.0/8", {}, 1, "192.0.2.1", record), i == 2) << i;
  }
}
