// From a dump file's bytes to values: every field from its documented offset, and every rejection.
#include <gtest/gtest.h>

#include "lbctl/sample_dumps.h"

namespace lbctl {
namespace {

constexpr const char* kForeign = "not a dump file of the daemon (record 1)";
constexpr const char* kOtherOrder = "written on a host of the other byte order (record 1)";

std::string fault_of_outbound(const Record& record, bool ipv6 = false) {
  const auto parsed = parse_outbounds(span_of(record.bytes()), ipv6);
  EXPECT_EQ(parsed.values.empty(), !parsed.error.empty());
  return parsed.error;
}
std::string fault_of_rule(const Record& record) {
  return parse_rules(span_of(record.bytes())).error;
}
std::string fault_of_route(const Record& record) {
  return parse_routes(span_of(record.bytes())).error;
}

TEST(DumpParserTest, InterfaceFields) {
  Record record = outbound_record();
  record
      .byte(188 + 55, 1)     // has a measurement
      .number(188 + 58, 4)   // measured jitter
      .number(188 + 62, 10)  // loss
      .number(188 + 66, 35)  // rtt
      .number(188 + 70, 50)  // limits in the same order
      .number(188 + 74, 20)
      .number(188 + 78, 200)
      .byte(4309, 1)
      .byte(4310, 1);
  const auto parsed = parse_outbounds(span_of(record.bytes()), false);
  ASSERT_EQ(parsed.error, "");
  ASSERT_EQ(parsed.values.size(), 1U);
  const InterfaceDump& interface = parsed.values[0];
  EXPECT_EQ(interface.name, "wan1");
  EXPECT_FALSE(interface.ipv6);
  EXPECT_EQ(interface.vrf, "default");
  EXPECT_EQ(interface.nexthop, "192.0.2.1");
  EXPECT_EQ(interface.source_address, "192.0.2.10");
  EXPECT_EQ(interface.success_age, 1);
  EXPECT_EQ(interface.failure_age, 12005);
  EXPECT_EQ(interface.change_age, 12000);
  EXPECT_EQ(interface.success_ct, 3);
  EXPECT_EQ(interface.failure_ct, 2);
  EXPECT_TRUE(interface.nexthop_is_dhcp);
  EXPECT_TRUE(interface.nexthop_is_tunnel);
  EXPECT_TRUE(interface.active);
  ASSERT_EQ(interface.tests.size(), 1U);
  const TestDump& test = interface.tests[0];
  EXPECT_EQ(test.target, "198.51.100.7");
  EXPECT_EQ(test.success_count, 3);
  EXPECT_EQ(test.failure_count, 0);
  EXPECT_EQ(test.result, 1);
  ASSERT_TRUE(test.measurement);
  EXPECT_EQ(test.measurement->measured_jitter, 4);
  EXPECT_EQ(test.measurement->measured_loss, 10);
  EXPECT_EQ(test.measurement->measured_rtt, 35);
  EXPECT_EQ(test.measurement->jitter, 50);
  EXPECT_EQ(test.measurement->loss, 20);
  EXPECT_EQ(test.measurement->rtt, 200);
}

TEST(DumpParserTest, FieldsThatAreNotSet) {
  const auto parsed = parse_outbounds(span_of(outbound_record().byte(4311, 0).bytes()), false);
  ASSERT_EQ(parsed.values.size(), 1U);
  EXPECT_FALSE(parsed.values[0].active);
  EXPECT_FALSE(parsed.values[0].nexthop_is_dhcp);
  EXPECT_FALSE(parsed.values[0].nexthop_is_tunnel);
  EXPECT_FALSE(parsed.values[0].tests[0].measurement);
}

TEST(DumpParserTest, SeveralRecordsInTheirOrder) {
  const std::string bytes = outbound_record().bytes() + outbound_record().text(0, "wan2").bytes();
  const auto parsed = parse_outbounds(span_of(bytes), false);
  ASSERT_EQ(parsed.values.size(), 2U);
  EXPECT_EQ(parsed.values[1].name, "wan2");
  EXPECT_EQ(parse_outbounds({}, false).error, "empty; is the disk full?");
  EXPECT_TRUE(parse_rules({}).error.empty());
}

TEST(DumpParserTest, RuleAndRouteFields) {
  const auto rules = parse_rules(span_of(rule_record().byte(3341, 1).bytes()));
  ASSERT_EQ(rules.error, "");
  ASSERT_EQ(rules.values.size(), 1U);
  EXPECT_EQ(rules.values[0].number, 7);
  EXPECT_FALSE(rules.values[0].ipv6);
  EXPECT_TRUE(rules.values[0].failover);
  EXPECT_EQ(rules.values[0].vrf, "default");
  ASSERT_EQ(rules.values[0].members.size(), 2U);
  EXPECT_EQ(rules.values[0].members[1].device, "wan2");
  EXPECT_EQ(rules.values[0].members[1].weight, 2);
  EXPECT_FALSE(rules.values[0].members[1].ipv6);

  const auto routes =
      parse_routes(span_of(route_record().text(50, "192.0.2.1").number(96, 20).bytes()));
  ASSERT_EQ(routes.error, "");
  ASSERT_EQ(routes.values.size(), 1U);
  EXPECT_EQ(routes.values[0].route.destination, "0.0.0.0/0");
  EXPECT_EQ(routes.values[0].route.nexthop, "192.0.2.1");
  EXPECT_EQ(routes.values[0].route.metric, 20);
  EXPECT_EQ(routes.values[0].route.index, 1);
  EXPECT_EQ(routes.values[0].rule_number, 7);
  EXPECT_FALSE(routes.values[0].ipv6);
}

TEST(DumpParserTest, TruncatedFilesOfEveryLength) {
  for (size_t length = 1; length < 4312; ++length) {
    const auto parsed =
        parse_outbounds(span_of(outbound_record().bytes().substr(0, length)), false);
    ASSERT_NE(parsed.error.find("truncated or foreign"), std::string::npos) << length;
    ASSERT_TRUE(parsed.values.empty());
  }
  EXPECT_NE(parse_rules(span_of(rule_record().bytes() + "x")).error, "");
  EXPECT_NE(parse_routes(span_of(std::string(108, '\0'))).error, "");
}

TEST(DumpParserTest, ForeignInterfaces) {
  EXPECT_EQ(fault_of_outbound(outbound_record()), "");
  EXPECT_EQ(fault_of_outbound(Record(4312)), kForeign);
  EXPECT_EQ(fault_of_outbound(outbound_record().byte(0, 0)), kForeign) << "no name";
  EXPECT_EQ(fault_of_outbound(outbound_record().text(0, std::string(64, 'x'))), kForeign);
  EXPECT_EQ(fault_of_outbound(outbound_record().text(64, std::string(32, 'x'))), kForeign);
  EXPECT_EQ(fault_of_outbound(outbound_record().text(96, std::string(46, 'x'))), kForeign);
  EXPECT_EQ(fault_of_outbound(outbound_record().text(142, std::string(46, 'x'))), kForeign);
  EXPECT_EQ(fault_of_outbound(outbound_record().text(188, std::string(46, 'x'))), kForeign);
  EXPECT_EQ(fault_of_outbound(outbound_record().byte(188 + 54, 3)), kForeign) << "result";
  EXPECT_EQ(fault_of_outbound(outbound_record().byte(188 + 55, 2)), kForeign) << "flag";
  EXPECT_EQ(fault_of_outbound(outbound_record().byte(4288, 51)), kForeign) << "tests";
  EXPECT_EQ(fault_of_outbound(outbound_record().number(4301, 0)), kForeign) << "threshold";
  EXPECT_EQ(fault_of_outbound(outbound_record().number(4305, -1)), kForeign);
  for (const size_t flag : {4309, 4310, 4311})
    EXPECT_EQ(fault_of_outbound(outbound_record().byte(flag, 2)), kForeign) << flag;
  EXPECT_EQ(fault_of_outbound(outbound_record(), true), kForeign) << "an IPv4 test";
}

TEST(DumpParserTest, ForeignRulesAndRoutes) {
  EXPECT_EQ(fault_of_rule(rule_record()), "");
  EXPECT_EQ(fault_of_rule(rule_record().number(3333, 1)), kForeign) << "reserved";
  EXPECT_EQ(fault_of_rule(rule_record().number(3337, 0)), kForeign) << "number";
  EXPECT_EQ(fault_of_rule(rule_record().byte(3300, 51)), kForeign);
  EXPECT_EQ(fault_of_rule(rule_record().byte(3341, 2)), kForeign);
  EXPECT_EQ(fault_of_rule(rule_record().byte(3342, 2)), kForeign);
  EXPECT_EQ(fault_of_rule(rule_record().byte(65, 2)), kForeign) << "a member's family";
  EXPECT_EQ(fault_of_rule(rule_record().text(0, std::string(64, 'x'))), kForeign);
  EXPECT_EQ(fault_of_rule(rule_record().text(3301, std::string(32, 'x'))), kForeign);
  EXPECT_EQ(fault_of_route(route_record()), "");
  EXPECT_EQ(fault_of_route(route_record().number(100, 0)), kForeign);
  EXPECT_EQ(fault_of_route(route_record().number(100, 51)), kForeign);
  EXPECT_EQ(fault_of_route(route_record().number(104, 0)), kForeign);
  EXPECT_EQ(fault_of_route(route_record().byte(108, 2)), kForeign);
  EXPECT_EQ(fault_of_route(route_record().text(0, std::string(50, 'x'))), kForeign);
  EXPECT_EQ(fault_of_route(route_record().text(50, std::string(46, 'x'))), kForeign);
}

TEST(DumpParserTest, AgesAreNotBelowZero) {
  const auto parsed = parse_outbounds(span_of(outbound_record().number(4297, -5).bytes()), false);
  ASSERT_EQ(parsed.values.size(), 1U);
  EXPECT_EQ(parsed.values[0].change_age, 0);
}

TEST(DumpParserTest, OtherByteOrder) {
  EXPECT_EQ(fault_of_outbound(outbound_record().swapped(4301, 3).swapped(4305, 2)), kOtherOrder);
  EXPECT_EQ(fault_of_rule(rule_record().swapped(3337, 7)), kOtherOrder);
  // Large numbers that anybody may configure.
  EXPECT_EQ(fault_of_rule(rule_record().number(3337, 20261122)), "");
  EXPECT_EQ(fault_of_outbound(outbound_record().number(4301, 2000000)), "");
  const std::string some = rule_record().bytes() + rule_record().number(3337, 16777216).bytes();
  EXPECT_EQ(parse_rules(span_of(some)).error, "") << "the first one tells the order";
  EXPECT_EQ(fault_of_route(route_record().swapped(100, 1).swapped(104, 7)), kOtherOrder);
}

TEST(DumpParserTest, TheFaultyRecordIsNamedAndNoneIsTaken) {
  const std::string bytes = route_record().bytes() + route_record().byte(108, 2).bytes();
  const auto parsed = parse_routes(span_of(bytes));
  EXPECT_EQ(parsed.error, "not a dump file of the daemon (record 2)");
  EXPECT_TRUE(parsed.values.empty());
}

TEST(DumpParserTest, RoutesJoinTheirRules) {
  std::vector<RuleDump> rules{rule_dump(7, false, {}, {}), rule_dump(7, false, {}, {}, true)};
  join_routes(rules, {{{"10.0.0.0/8", "", -1, 1}, 7, false},
                      {{"::/0", "", -1, 1}, 7, true},
                      {{"10.1.0.0/16", "", -1, 2}, 7, false},
                      {{"10.2.0.0/16", "", -1, 1}, 8, false}});
  ASSERT_EQ(rules[0].routes.size(), 2U);
  EXPECT_EQ(rules[0].routes[1].destination, "10.1.0.0/16");
  ASSERT_EQ(rules[1].routes.size(), 1U);
  EXPECT_EQ(rules[1].routes[0].destination, "::/0");
}

}  // namespace
}  // namespace lbctl
