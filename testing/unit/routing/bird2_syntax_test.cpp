#include "routing/bird2_syntax.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <climits>
#include <string>
#include <vector>

#include "support/model_builder.h"
#include "support/recorded_log.h"

using testing::ElementsAre;
using testing::IsEmpty;
using testing::Pair;

namespace {

class Bird2SyntaxTest : public testing::Test {
 protected:
  Bird2SyntaxTest() { config_.options->bird2_routes = true; }

  LBRule& add_rule(const std::string& name, const std::string& prefix) {
    LBRule& rule = config_.rules[name];
    rule.targets[prefix];
    return rule;
  }
  LBInterface& add_member(LBRule& rule, const std::string& name, const std::string& nexthop,
                          int32_t weight = 1, bool ipv6 = false) {
    rule.members[name] = {.ipv6 = ipv6, .weight = weight};
    return add_active_interface(config_, name, nexthop, ipv6);
  }
  StaticRoutes routes(bool ipv6 = false) const {
    return build_static_routes(config_, ipv6, kDefaultNamespace);
  }
  std::string body(bool ipv6 = false) const { return routes(ipv6).body; }

  LBConfig config_;
  const Bird2Syntax syntax_;
};

struct Destination {
  bool ipv6;
  const char* text;
  const char* written;  // empty: refused
};

class Bird2SyntaxDestinationTest : public Bird2SyntaxTest,
                                   public testing::WithParamInterface<Destination> {};

struct Hop {
  bool ipv6;
  const char* address;
  const char* device;
  const char* fault;  // null: taken
};

class Bird2SyntaxNexthopTest : public Bird2SyntaxTest, public testing::WithParamInterface<Hop> {};

class Bird2SyntaxRefusedLineTest : public Bird2SyntaxTest,
                                   public testing::WithParamInterface<const char*> {};

constexpr const char* kNoHost = "not the address of a host";
constexpr const char* kNoName = "bird2 cannot name the device";

}  // namespace

TEST_F(Bird2SyntaxTest, EveryNextHopHasItsDevice) {
  LBRule& rule = add_rule("1_ipv4", "0.0.0.0/0");
  add_member(rule, "wan1", "192.168.1.1", 1).origin = "eth0";
  add_member(rule, "wan2", "192.168.1.1", 2).origin = "eth1.7";
  EXPECT_EQ(body(),
            "route 0.0.0.0/0 via 192.168.1.1%'eth0' onlink weight 1"
            " via 192.168.1.1%'eth1.7' onlink weight 2;\n");
}

TEST_F(Bird2SyntaxTest, LinkLocalNextHopsOfBothUplinks) {
  LBRule& rule = add_rule("1_ipv6", "default");
  add_member(rule, "wan1", "fe80::1", 1, true);
  set_found(add_member(rule, "wan2", "kernel", 1, true), "fe80::1");
  EXPECT_EQ(body(true),
            "route ::/0 via fe80::1%'wan1' onlink weight 1 via fe80::1%'wan2' onlink weight 1;\n");
}

TEST_F(Bird2SyntaxTest, MetricIsAnAttributeOfTheRoute) {
  LBRule& rule = add_rule("1_ipv4", "0.0.0.0/0");
  add_member(rule, "wan1", "192.0.2.1");
  rule.targets["0.0.0.0/0"].metric = 10;
  EXPECT_EQ(body(), "route 0.0.0.0/0 via 192.0.2.1%'wan1' onlink weight 1 { krt_metric = 10; };\n");
  rule.targets["0.0.0.0/0"].metric = 0;
  EXPECT_THAT(body(), testing::HasSubstr("{ krt_metric = 0; };"));
  rule.targets["0.0.0.0/0"].metric = -2;  // read from 4294967294
  EXPECT_THAT(body(), testing::HasSubstr("{ krt_metric = 4294967294; };"));
}

TEST_F(Bird2SyntaxTest, LargeWeightsAreScaledTogether) {
  LBRule& rule = add_rule("1_ipv4", "0.0.0.0/0");
  add_member(rule, "wan1", "192.0.2.1", 256);
  add_member(rule, "wan2", "192.0.2.2", 1);
  EXPECT_EQ(body(),
            "route 0.0.0.0/0 via 192.0.2.1%'wan1' onlink weight 256"
            " via 192.0.2.2%'wan2' onlink weight 1;\n");
  rule.members["wan1"].weight = 1000;
  rule.members["wan2"].weight = 500;
  EXPECT_EQ(body(),
            "route 0.0.0.0/0 via 192.0.2.1%'wan1' onlink weight 256"
            " via 192.0.2.2%'wan2' onlink weight 128;\n");
  rule.members["wan1"].weight = INT_MAX;
  rule.members["wan2"].weight = 1;
  EXPECT_EQ(body(),
            "route 0.0.0.0/0 via 192.0.2.1%'wan1' onlink weight 256"
            " via 192.0.2.2%'wan2' onlink weight 1;\n");
}

TEST_F(Bird2SyntaxTest, FailoverChoosesAmongMembersWithANextHop) {
  LBRule& rule = add_rule("1_ipv4", "default");
  rule.failover = 1;
  add_member(rule, "wan1", "dhcp", 9);
  add_member(rule, "wan2", "no address", 5);
  add_member(rule, "wan3", "192.0.2.3", 1);
  EXPECT_EQ(body(), "route 0.0.0.0/0 via 192.0.2.3%'wan3' onlink weight 1;\n");
  EXPECT_THAT(routes().failover_nexthops,
              ElementsAre(Pair("1_ipv4", ElementsAre(Pair("default", "192.0.2.3")))));
}

TEST_F(Bird2SyntaxTest, BadDestinationAndNextHopAreLeftOutAndNamed) {
  LBRule& rule = add_rule("1_ipv4", "10.0.0.0/33");
  rule.targets["10.1.2.3/8"];
  add_member(rule, "wan1", "192.0.2.1");
  add_member(rule, "wan2", "300.0.0.1").origin = "eth1";
  add_member(rule, "wan3", "dhcp");
  EXPECT_EQ(body(), "route 10.0.0.0/8 via 192.0.2.1%'wan1' onlink weight 1;\n");
  EXPECT_THAT(
      log_records(),
      ElementsAre(LoggedWarning("wan_lb: rule 1_ipv4: next hop '300.0.0.1' of interface wan2 "
                                "(eth1) left out: not the address of a host"),
                  LoggedWarning("wan_lb: rule 1_ipv4: destination '10.0.0.0/33' left out: no "
                                "IPv4 address or prefix")));
}

TEST_F(Bird2SyntaxTest, RuleOfBothFamiliesGivesEachItsOwnInSilence) {
  LBRule& rule = add_rule("1_ipv4", "10.0.0.0/8");
  rule.targets["2001:db8::/32"];
  add_member(rule, "wan1", "192.0.2.1");
  add_member(rule, "wan6", "fe80::1", 1, true);
  EXPECT_EQ(body(), "route 10.0.0.0/8 via 192.0.2.1%'wan1' onlink weight 1;\n");
  EXPECT_EQ(body(true), "route 2001:db8::/32 via fe80::1%'wan6' onlink weight 1;\n");
  EXPECT_THAT(log_records(), IsEmpty());
}

TEST_F(Bird2SyntaxTest, DestinationOfAFamilyWithoutMembersIsLeftOutAndNamed) {
  add_member(add_rule("1_ipv6", "10.0.0.0/8"), "wan6", "fe80::1", 1, true);
  EXPECT_EQ(body(true), "");
  EXPECT_EQ(body(), "");
  EXPECT_THAT(log_records(), ElementsAre(LoggedWarning(
                                 "wan_lb: rule 1_ipv6: destination '10.0.0.0/8' left out: no IPv6 "
                                 "address or prefix")));
}

TEST_F(Bird2SyntaxTest, NothingIsSaidWhileNoMemberIsActive) {
  set_active(add_member(add_rule("1_ipv4", "no prefix"), "wan1", "no address"), false);
  EXPECT_EQ(body(), "");
  EXPECT_THAT(log_records(), IsEmpty());
}

TEST_P(Bird2SyntaxDestinationTest, IsWrittenWithoutHostBitsOrRefused) {
  const auto& [ipv6, text, written] = GetParam();
  EXPECT_EQ(syntax_.destination({"1", text}, ipv6), written);
}

INSTANTIATE_TEST_SUITE_P(
    Texts, Bird2SyntaxDestinationTest,
    testing::Values(Destination{false, "default", "0.0.0.0/0"},
                    Destination{true, "default", "::/0"},
                    Destination{false, "192.0.2.77/24", "192.0.2.0/24"},
                    Destination{false, "192.0.2.255/31", "192.0.2.254/31"},
                    Destination{false, "255.255.255.255/0", "0.0.0.0/0"},
                    Destination{false, "192.0.2.7", "192.0.2.7/32"},
                    Destination{true, "2001:DB8::7", "2001:db8::7/128"},
                    Destination{true, "2001:db8:0:1::7/49", "2001:db8::/49"},
                    Destination{false, "2001:db8::/32", ""}, Destination{true, "192.0.2.0/24", ""},
                    Destination{false, "", ""}, Destination{false, "/8", ""},
                    Destination{false, "10.0.0.0/", ""}, Destination{false, "10.0.0.0/-1", ""},
                    Destination{false, "10.0.0.0/+8", ""}, Destination{false, "10.0.0.0/8x", ""},
                    Destination{false, "10.0.0.0/8/8", ""}, Destination{false, "10.0.0.0/33", ""},
                    Destination{true, "::/129", ""}, Destination{false, "10.0.0.0/255.0.0.0", ""},
                    Destination{false, "10.0.0/8", ""}, Destination{false, "10.0.0.0/8;", ""},
                    Destination{false, "10.0.0.0/99999999999999999999", ""},
                    Destination{false, "Default", ""}));

TEST_P(Bird2SyntaxNexthopTest, IsTakenOrRefused) {
  const auto& [ipv6, address, device, fault] = GetParam();
  EXPECT_EQ(syntax_.takes({"1", "wan"}, {address, device, 1}, ipv6), fault == nullptr);
  if (fault == nullptr) {
    EXPECT_THAT(log_records(), IsEmpty());
  } else {
    EXPECT_THAT(log_records(), ElementsAre(LoggedWarning(std::string("wan_lb: rule 1: next hop '") +
                                                         address + "' of interface wan (" + device +
                                                         ") left out: " + fault)));
  }
}

INSTANTIATE_TEST_SUITE_P(
    Texts, Bird2SyntaxNexthopTest,
    testing::Values(
        Hop{false, "192.0.2.1", "eth0", nullptr},
        Hop{false, "223.255.255.255", "a-b_c.d:9", nullptr},
        Hop{true, "fe80::1", "123456789012345", nullptr}, Hop{true, "100::", "1", nullptr},
        Hop{false, "192.0.2.1", "Route", nullptr}, Hop{false, "0.0.0.0", "eth0", kNoHost},
        Hop{false, "127.0.0.1", "eth0", kNoHost}, Hop{false, "224.0.0.1", "eth0", kNoHost},
        Hop{false, "255.255.255.255", "eth0", kNoHost}, Hop{false, "192.0.2.1/32", "eth0", kNoHost},
        Hop{false, "router.example", "eth0", kNoHost}, Hop{false, "fe80::1", "eth0", kNoHost},
        Hop{true, "192.0.2.1", "eth0", kNoHost}, Hop{true, "::", "eth0", kNoHost},
        Hop{true, "::1", "eth0", kNoHost}, Hop{true, "::ffff:192.0.2.1", "eth0", kNoHost},
        Hop{true, "ff02::1", "eth0", kNoHost}, Hop{true, "fe80::1%eth0", "eth0", kNoHost},
        Hop{false, "192.0.2.1", "", kNoName}, Hop{false, "192.0.2.1", "1234567890123456", kNoName},
        Hop{false, "192.0.2.1", "a'b", kNoName}, Hop{false, "192.0.2.1", "a b", kNoName},
        Hop{false, "192.0.2.1", "caf\xC3\xA9", kNoName}, Hop{false, "192.0.2.1", "a@b", kNoName},
        Hop{false, "192.0.2.1", "route", kNoName}, Hop{false, "192.0.2.1", "AF_IPV4", kNoName},
        Hop{false, "192.0.2.1", "zero", kNoName}));

TEST_F(Bird2SyntaxTest, NextHopStillToBeFoundIsRefusedInSilence) {
  EXPECT_FALSE(syntax_.takes({"1", "wan"}, {"", "eth0", 1}, false));
  EXPECT_THAT(log_records(), IsEmpty());
}

TEST_F(Bird2SyntaxTest, LinesAreReadBack) {
  for (const int32_t metric : {-1, 0, 10, -2}) {
    const StaticRoute route{
        "10.0.0.0/8", metric, {{"192.0.2.1", "eth0", 1}, {"192.0.2.2", "eth1", 256}}};
    std::string line = syntax_.line(route);
    line.pop_back();
    const auto read = syntax_.parse(line, false);
    ASSERT_TRUE(read) << line;
    EXPECT_EQ(read->destination, "10.0.0.0/8");
    EXPECT_EQ(read->metric, metric);
    ASSERT_EQ(read->nexthops.size(), 2);
    EXPECT_EQ(read->nexthops[1].address, "192.0.2.2");
    EXPECT_EQ(read->nexthops[1].device, "eth1");
    EXPECT_EQ(read->nexthops[1].weight, 256);
  }
}

TEST_P(Bird2SyntaxRefusedLineTest, IsNoneOfOurs) { EXPECT_FALSE(syntax_.parse(GetParam(), false)); }

INSTANTIATE_TEST_SUITE_P(
    Lines, Bird2SyntaxRefusedLineTest,
    testing::Values("", ";", "route", "route 10.0.0.0/8;", "protocol static {",
                    "route 10.0.0.0/8 via 192.0.2.1 weight 1;",
                    "route 10.0.0.0/8 via 192.0.2.1%'eth0' onlink weight 0;",
                    "route 10.0.0.0/8 via 192.0.2.1%'eth0' onlink weight 257;",
                    "route 10.0.0.0/8 via 192.0.2.1%'eth0' onlink weight 1",
                    "route 10.0.0.0/8 via 192.0.2.1%'eth0' weight 1;",
                    "route 10.0.0.1/8 via 192.0.2.1%'eth0' onlink weight 1;",
                    "route 10.0.0.0/8 via 192.0.2.1%'route' onlink weight 1;",
                    "route 10.0.0.0/8 via fe80::1%'eth0' onlink weight 1;",
                    "route 10.0.0.0/8 via 192.0.2.1%'eth0' onlink weight 1 { krt_metric = x; };",
                    "route 10.0.0.0/8 via 192.0.2.1%'eth0' onlink weight 1 { krt_metric = 1; }",
                    "route 10.0.0.0/8  via 192.0.2.1%'eth0' onlink weight 1;",
                    " route 10.0.0.0/8 via 192.0.2.1%'eth0' onlink weight 1;"));
