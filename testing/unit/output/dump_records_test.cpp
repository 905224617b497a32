// The records of rules and routes, byte for byte.
#include "output/dump_records.h"

#include <gtest/gtest.h>

#include <string>

#include "support/model_builder.h"
#include "support/record_bytes.h"
#include "support/wrapped_calls.h"

namespace {

class DumpRecordsRuleTest : public testing::Test {
 protected:
  RecordBytes fill(const RuleKey& key = {3, 4}) {
    DumpRule record{};
    EXPECT_TRUE(fill_rule(key, rule_, config_, record));
    return RecordBytes(record);
  }

  LBConfig config_;
  LBRule rule_;
};

RecordBytes route(const RuleKey& key, const std::string& destination, int32_t metric, int32_t index,
                  const std::string& nexthop) {
  DumpRoute record{};
  EXPECT_TRUE(fill_route(key, destination, LBTarget{metric}, index, nexthop, record));
  return RecordBytes(record);
}

}  // namespace

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
  RecordBytes bytes = fill({3, 6});
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
  RecordBytes bytes = fill({70000, 4});
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
  RecordBytes bytes = fill();
  EXPECT_EQ(bytes.text(0, 64), "eth6");
  EXPECT_EQ(bytes.text(66, 64), "wan2");
  EXPECT_EQ(bytes.text(132, 64), "wan3");
  rule_.members["wan1"].ipv6 = false;
  EXPECT_EQ(fill().text(0, 64), "eth4");
}

TEST_F(DumpRecordsRuleTest, AtMostFiftyMembers) {
  for (int i = 100; i < 151; ++i) rule_.members["eth" + std::to_string(i)].weight = 1;
  RecordBytes bytes = fill();
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
  RecordBytes bytes = route({3, 6}, "2001:db8::/32", 70000, 2, "fe80::1");
  EXPECT_EQ(bytes.text(0, 50), "2001:db8::/32");
  EXPECT_EQ(bytes.text(50, 46), "fe80::1");
  EXPECT_EQ(bytes.number(96), 70000);
  EXPECT_EQ(bytes.number(100), 2);
  EXPECT_EQ(bytes.number(104), 3);
  EXPECT_EQ(bytes.byte(108), 1);
  EXPECT_TRUE(bytes.rest_is_zero());
}

TEST(DumpRecordsRouteTest, Ipv4WithoutNextHopAndMetric) {
  RecordBytes bytes = route({3, 4}, "255.255.255.255/32", -1, 1, "");
  EXPECT_EQ(bytes.text(0, 50), "255.255.255.255/32");
  EXPECT_EQ(bytes.number(96), -1);
  EXPECT_EQ(bytes.number(100), 1);
  EXPECT_EQ(bytes.number(104), 3);
  EXPECT_TRUE(bytes.rest_is_zero());
}

TEST(DumpRecordsRouteTest, LongTextsAreCut) {
  RecordBytes bytes = route({3, 4}, std::string(100, 'd'), 0, 1, std::string(100, 'n'));
  EXPECT_EQ(bytes.text(0, 50), std::string(18, 'd'));
  EXPECT_EQ(bytes.text(50, 46), std::string(15, 'n'));
  RecordBytes bytes6 = route({3, 6}, std::string(100, 'd'), 0, 1, std::string(100, 'n'));
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
