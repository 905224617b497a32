// The table, as it is printed, and its width whatever is in it.
#include "lbctl/status_text.h"

#include <gtest/gtest.h>

#include <random>
#include <sstream>

#include "lbctl/sample_dumps.h"

namespace lbctl {
namespace {

Status sample() {
  Status status;
  status.written = 951782400;
  status.now = status.written + 1;
  InterfaceDump wan1 = interface_dump("wan1", true, "192.0.2.1");
  wan1.tests = {test_dump("198.51.100.7", 1), test_dump("198.51.100.8", 2)};
  wan1.tests[1].measurement = {4, 40, 35, 50, 20, 200};
  InterfaceDump wan2 = interface_dump("wan2", false, "");
  wan2.vrf = "blue";
  wan2.change_age = 45;
  wan2.tests = {test_dump("", 0)};
  InterfaceDump wan1_ipv6 = interface_dump("wan1", true, "2001:db8:1:2:3:4:5:6", true);
  wan1_ipv6.tests = {test_dump("2001:db8:1111:2222:3333:4444:5555:6666", 1)};
  status.interfaces = {wan1, wan2, wan1_ipv6};
  const RuleDump weighted =
      rule_dump(1, false, {{"eth0", 1}, {"eth1", 2}}, {{"0.0.0.0/0", ""}, {"10.0.0.0/8", ""}});
  RuleDump failover =
      rule_dump(2, true, {{"eth0", 10}}, {{"::/0", "fe80::1"}, {"2001:db8::/32", ""}}, true);
  failover.routes[0].metric = 20;
  status.rules = {
      {weighted, {{weighted.routes[0], true, ""}, {weighted.routes[1], false, ""}}},
      {failover, {{failover.routes[0], std::nullopt, ""}, {failover.routes[1], false, ""}}}};
  return status;
}

TEST(StatusTextTest, Table) {
  EXPECT_EQ(joined(status_text(sample()), false),
            R"(IPv4
INTERFACE  VRF      STATE   FOR          NEXT HOP
wan1       default  active  3 h 20 min   192.0.2.1
  + ping      198.51.100.7   success    good 3/3  bad 0/2
  - ping_ext  198.51.100.8   failure    good 0/3  bad 2/2
      loss 40 of 20 %   rtt 35 of 200 ms   jitter 4 of 50 ms
wan2       blue     failed  45 s         none
              no target yet  no result  good 0/3  bad 0/2
Rule 1  default  by weight: eth0 1, eth1 2
  0.0.0.0/0  in force
  10.0.0.0/8  not in force

IPv6
INTERFACE  VRF      STATE   FOR          NEXT HOP
wan1       default  active  3 h 20 min   2001:db8:1:2:3:4:5:6
  + ping  2001:db8:1111:2222:3333:4444:5555:6666  success    good 3/3  bad 0/2
Rule 2  default  failover: eth0 10
  ::/0  metric 20  via fe80::1  kernel's table not readable
  2001:db8::/32  no next hop  not in force

Written 2000-02-29T00:00:00Z, 1 s ago.
)");
}

TEST(StatusTextTest, Colours) {
  const std::string text = joined(status_text(sample()), true);
  EXPECT_NE(text.find("\033[32mactive\033[0m"), std::string::npos);
  EXPECT_NE(text.find("\033[31mfailed\033[0m"), std::string::npos);
  EXPECT_NE(text.find("\033[31mloss 40 of 20 %\033[0m"), std::string::npos) << "beyond its limit";
  EXPECT_EQ(text.find("\033[31mrtt"), std::string::npos);
  Status at_limit = sample();
  at_limit.interfaces[0].tests[1].measurement->measured_rtt = 200;
  EXPECT_NE(joined(status_text(at_limit), true).find("\033[31mrtt 200 of 200 ms"),
            std::string::npos)
      << "a burst fails at its limit";
  EXPECT_NE(text.find("\033[31mnot in force\033[0m"), std::string::npos);
}

TEST(StatusTextTest, StaleFilesAreSaidToBe) {
  Status status = sample();
  status.stale = true;
  status.now += 60;
  const std::string text = joined(status_text(status), false);
  EXPECT_NE(text.find("\nSTALE: Written 2000-02-29T00:00:00Z, 1 min 1 s ago. Is the daemon "
                      "running?\n"),
            std::string::npos)
      << text;
}

TEST(StatusTextTest, NothingAtAll) {
  Status status = sample();
  status.interfaces.clear();
  status.rules.clear();
  EXPECT_EQ(joined(status_tables(status), false), "No interfaces and no rules.\n");
  status = sample();
  status.interfaces.clear();
  EXPECT_NE(joined(status_tables(status), false).find("IPv4\nNo interfaces.\nRule 1"),
            std::string::npos);
}

TEST(StatusTextTest, LongRoutesTakeTwoLines) {
  Status status = sample();
  const char* const destination = "2001:db8:1111:2222:3333:4444:5555:6666/128";
  const char* const nexthop = "2001:db8:1111:2222:3333:4444:5555:7777";
  status.interfaces.clear();
  status.rules = {{rule_dump(1, true, {}, {}, true), {{{destination, nexthop, 7, 1}, true, ""}}}};
  EXPECT_EQ(joined(status_tables(status), false), R"(IPv6
No interfaces.
Rule 1  default  failover: no members
  2001:db8:1111:2222:3333:4444:5555:6666/128  metric 7
    via 2001:db8:1111:2222:3333:4444:5555:7777  in force
)");
}

// No worker serves it: its ages are 0 for good.
TEST(StatusTextTest, AnInterfaceThatIsNotProbedHasNoAge) {
  Status status = sample();
  InterfaceDump& interface = status.interfaces[0];
  interface = interface_dump("wan1", false, "192.0.2.1");
  interface.success_age = interface.failure_age = interface.change_age = 0;
  interface.tests = {test_dump("198.51.100.7", 0)};
  const auto line = [&status] {
    const std::string text = joined(status_tables(status), false);
    return text.substr(text.find("wan1"), 53);
  };
  EXPECT_EQ(line(), "wan1       default  failed  not probed   192.0.2.1\n  ");
  interface.tests = {test_dump("198.51.100.7", 2)};
  EXPECT_EQ(line(), "wan1       default  failed  0 s          192.0.2.1\n  ");
}

TEST(StatusTextTest, AnotherProgramsRouteIsSaid) {
  Status status = sample();
  status.interfaces.clear();
  status.rules.resize(1);
  status.rules[0].routes[0] = {status.rules[0].rule.routes[0], false, "a DHCP client"};
  status.rules[0].routes[1] = {{"2001:db8:1111:2222:3333::/80", "", -1, 2}, false, "ip route"};
  EXPECT_EQ(joined(status_tables(status), false), R"(IPv4
No interfaces.
Rule 1  default  by weight: eth0 1, eth1 2
  0.0.0.0/0  not in force: another route is used (from a DHCP client)
  2001:db8:1111:2222:3333::/80
    not in force: another route is used (from ip route)
)");
}

TEST(StatusTextTest, OddBytesDoNotReachTheTerminal) {
  Status status = sample();
  status.interfaces.resize(1);
  status.interfaces[0].name = "\033[31mw\xC3\xA4n\x9B\n";
  status.interfaces[0].nexthop = "\033c";
  status.interfaces[0].vrf = "\a";
  status.interfaces[0].tests[0].target = "\r\033]0;x\a";
  status.rules.resize(1);
  status.rules[0].rule.members[0].device = "\033[2J";
  status.rules[0].routes[0].route.destination = "\b\b";
  const std::string text = joined(status_text(status), false);
  for (const char character : text)
    ASSERT_TRUE(character == '\n' || (character >= 0x20 && character < 0x7F)) << text;
  EXPECT_NE(text.find("?[31mw?n?  "), std::string::npos) << text;
}

// Any text that a dump can hold, as long as its field allows.
class AnyText {
 public:
  std::string text(size_t longest) {
    std::string text(random_() % (longest + 1), ' ');
    for (char& character : text) character = static_cast<char>(1 + random_() % 255);
    return text;
  }
  int32_t number() {
    return random_() % 3 == 0 ? static_cast<int32_t>(random_())
                              : static_cast<int32_t>(random_() % 9);
  }
  size_t below(size_t limit) { return random_() % limit; }

 private:
  std::mt19937 random_{1};
};

TEST(StatusTextTest, NoLineIsLongerThan80Columns) {
  AnyText any;
  for (int round = 0; round < 300; ++round) {
    Status status;
    for (size_t at = any.below(4); at > 0; --at) {
      InterfaceDump interface =
          interface_dump(any.text(63), any.below(2) == 0, any.text(45), any.below(2) == 0);
      interface.vrf = any.text(31);
      interface.change_age = any.number();
      interface.success_ct = any.number();
      for (size_t test = any.below(3); test > 0; --test) {
        interface.tests.push_back(test_dump(any.text(45), static_cast<int32_t>(any.below(3))));
        interface.tests.back().success_count = any.number();
        if (any.below(2) == 0) {
          interface.tests.back().measurement = {any.number(), any.number(), any.number(),
                                                any.number(), any.number(), any.number()};
        }
      }
      status.interfaces.push_back(interface);
    }
    for (size_t at = any.below(3); at > 0; --at) {
      RuleStatus rule;
      rule.rule.number = any.number();
      rule.rule.vrf = any.text(31);
      rule.rule.failover = any.below(2) == 0;
      for (size_t member = any.below(20); member > 0; --member)
        rule.rule.members.push_back({any.text(63), 255, false});
      rule.routes.push_back({{any.text(49), any.text(45), any.number(), 1},
                             any.below(2) == 0,
                             any.below(2) == 0 ? "" : "a router advertisement"});
      status.rules.push_back(rule);
    }
    std::istringstream lines(joined(status_text(status), false));
    for (std::string line; std::getline(lines, line);) ASSERT_LE(line.size(), 80U) << line;
  }
}

TEST(TextTableTest, CutsInTheMiddle) {
  EXPECT_EQ(cut("provider-link-2", 15), "provider-link-2");
  EXPECT_EQ(cut("provider-link-2", 14), "provide~link-2");
  EXPECT_EQ(cut("abc", 2), "a~");
  EXPECT_EQ(cut("abc", 1), "~");
  EXPECT_EQ(cut("abc", 0), "");
  EXPECT_EQ(cell("abc", 5), "abc  ");
  EXPECT_EQ(cell("abcdef", 5), "ab~ef");
}

}  // namespace
}  // namespace lbctl
