// Which routes are in force, and what a script is told.
#include "lbctl/status_model.h"

#include <gtest/gtest.h>
#include <linux/rtnetlink.h>

#include "lbctl/command.h"
#include "lbctl/sample_dumps.h"

namespace lbctl {
namespace {

using Table = std::vector<KernelRoute>;

KernelRoute kernel_route(const std::string& destination, std::vector<KernelNexthop> nexthops,
                         uint32_t metric = 32, uint8_t protocol = RTPROT_BIRD) {
  return {destination, metric, protocol, std::move(nexthops)};
}

class StatusModelTest : public testing::Test {
 protected:
  Status status(const Families& families = {}) {
    return make_status(dumps_, families, 1000,
                       [this](const std::string& vrf, bool ipv6) -> std::optional<Table> {
                         asked_.push_back(vrf + (ipv6 ? "/6" : "/4"));
                         const auto table = tables_.find(asked_.back());
                         if (table == tables_.end()) return std::nullopt;
                         return table->second;
                       });
  }

  // Of the first route of the first rule.
  std::optional<bool> in_force() { return status().rules.at(0).routes.at(0).in_force; }

  void set_table(Table table) { tables_["default/4"] = std::move(table); }

  Dumps dumps_;
  std::map<std::string, Table> tables_;
  std::vector<std::string> asked_;
};

// Rules name members by devices that are the interfaces' names too.
class SameNames : public StatusModelTest {
 protected:
  SameNames() {
    dumps_.interfaces = {interface_dump("eth0", true, "192.0.2.1"),
                         interface_dump("eth1", true, "198.51.100.1"),
                         interface_dump("eth2", false, "203.0.113.1")};
    dumps_.rules = {
        rule_dump(1, false, {{"eth0", 1}, {"eth1", 2}, {"eth2", 1}}, {{"0.0.0.0/0", ""}})};
    dumps_.newest.tv_sec = 1000;
  }
};

TEST_F(SameNames, WeightedRouteLeadsToTheActiveMembers) {
  set_table({kernel_route("0.0.0.0/0", {{"192.0.2.1", "eth0"}, {"198.51.100.1", "eth1", 2}})});
  EXPECT_EQ(in_force(), true);
}

TEST_F(SameNames, AnotherSetOfNextHopsIsNotIt) {
  set_table({});
  EXPECT_EQ(in_force(), false);
  set_table({kernel_route("0.0.0.0/0", {{"192.0.2.1", "eth0"}})});
  EXPECT_EQ(in_force(), false) << "one is missing";
  set_table({kernel_route(
      "0.0.0.0/0", {{"192.0.2.1", "eth0"}, {"198.51.100.1", "eth1"}, {"203.0.113.1", "eth2"}})});
  EXPECT_EQ(in_force(), false) << "one has failed";
  set_table({kernel_route("0.0.0.0/0", {{"192.0.2.1", "eth0"}, {"198.51.100.1", "eth0"}})});
  EXPECT_EQ(in_force(), false) << "by another device";
  set_table({kernel_route("10.0.0.0/8", {{"192.0.2.1", "eth0"}, {"198.51.100.1", "eth1"}})});
  EXPECT_EQ(in_force(), false) << "another destination";
}

TEST_F(SameNames, ThePreferredRouteCounts) {
  const auto wanted = kernel_route("0.0.0.0/0", {{"192.0.2.1", "eth0"}, {"198.51.100.1", "eth1"}});
  set_table({wanted, kernel_route("0.0.0.0/0", {{"192.0.2.9", "eth0"}}, 1024)});
  EXPECT_EQ(in_force(), true);
  set_table({wanted, kernel_route("0.0.0.0/0", {{"192.0.2.9", "eth0"}}, 0)});
  EXPECT_EQ(in_force(), false) << "shadowed";
}

// Such as a DHCP client's: it stays there when the link has failed.
TEST_F(SameNames, AnotherProgramsRouteIsNotInForceWhereverItLeads) {
  dumps_.interfaces[1].active = false;
  const KernelRoute foreign = kernel_route("0.0.0.0/0", {{"192.0.2.1", "eth0"}}, 100, RTPROT_DHCP);
  const auto used_instead = [this] { return status().rules.at(0).routes.at(0).used_instead; };
  set_table({foreign});
  EXPECT_EQ(in_force(), false);
  EXPECT_EQ(used_instead(), "a DHCP client");
  set_table({foreign, kernel_route("0.0.0.0/0", {{"192.0.2.1", "eth0"}})});
  EXPECT_EQ(in_force(), true) << "the routing daemon's is preferred";
  EXPECT_EQ(used_instead(), "");
  set_table({foreign, kernel_route("0.0.0.0/0", {{"192.0.2.1", "eth0"}}, 101)});
  EXPECT_EQ(in_force(), false) << "shadowed";
  EXPECT_EQ(used_instead(), "a DHCP client");
  set_table({kernel_route("0.0.0.0/0", {}, 100, RTPROT_DHCP)});
  EXPECT_EQ(used_instead(), "") << "nothing goes by it";
}

TEST_F(SameNames, NoActiveMemberHasNoRouteInForce) {
  for (InterfaceDump& interface : dumps_.interfaces) interface.active = false;
  set_table({kernel_route("0.0.0.0/0", {})});
  EXPECT_EQ(in_force(), false);
}

TEST_F(SameNames, KeptRouteOfAMemberThatHasFailedIsInForce) {
  for (InterfaceDump& interface : dumps_.interfaces) interface.active = false;
  set_table({kernel_route("0.0.0.0/0", {{"192.0.2.1", "eth0"}})});
  EXPECT_EQ(in_force(), true);
  set_table({kernel_route("0.0.0.0/0", {{"192.0.2.99", "eth0"}})});
  EXPECT_EQ(in_force(), false) << "nobody's next hop";
  dumps_.rules[0].failover = true;
  dumps_.rules[0].routes[0].nexthop = "192.0.2.1";
  set_table({kernel_route("0.0.0.0/0", {{"192.0.2.1", "eth0"}})});
  EXPECT_EQ(in_force(), true);
}

TEST_F(SameNames, MembersOfWeightZeroOrWithoutNextHopCarryNothing) {
  dumps_.rules[0].members[1].weight = 0;
  set_table({kernel_route("0.0.0.0/0", {{"192.0.2.1", "eth0"}})});
  EXPECT_EQ(in_force(), true);
  dumps_.rules[0].members[1].weight = 1;
  EXPECT_EQ(in_force(), false);
  dumps_.interfaces[1].nexthop.clear();
  EXPECT_EQ(in_force(), true);
}

TEST_F(SameNames, FailoverLeadsToTheChosenNextHop) {
  dumps_.rules = {rule_dump(1, true, {{"eth0", 9}, {"eth1", 1}}, {{"0.0.0.0/0", "198.51.100.1"}})};
  set_table({kernel_route("0.0.0.0/0", {{"198.51.100.1", "eth1"}})});
  EXPECT_EQ(in_force(), true);
  set_table({kernel_route("0.0.0.0/0", {{"192.0.2.1", "eth0"}})});
  EXPECT_EQ(in_force(), false);
  dumps_.rules[0].routes[0].nexthop.clear();
  EXPECT_EQ(in_force(), false) << "nothing is chosen";
}

TEST_F(SameNames, FailoverBetweenGatewaysOfOneAddress) {
  for (InterfaceDump& interface : dumps_.interfaces) interface.nexthop = "192.0.2.1";
  dumps_.rules = {rule_dump(1, true, {{"eth0", 1}, {"eth2", 9}}, {{"0.0.0.0/0", "192.0.2.1"}})};
  set_table({kernel_route("0.0.0.0/0", {{"192.0.2.1", "eth0"}})});
  EXPECT_EQ(in_force(), true);
  set_table({kernel_route("0.0.0.0/0", {{"192.0.2.1", "eth2"}})});
  EXPECT_EQ(in_force(), false) << "still by the failed one";
}

TEST_F(SameNames, DestinationsAreComparedInTheirCanonicalForm) {
  dumps_.rules[0].routes = {{"default", "", -1, 1}, {"10.1.2.3/8", "", -1, 2}};
  const std::vector<KernelNexthop> both{{"192.0.2.1", "eth0"}, {"198.51.100.1", "eth1"}};
  set_table({kernel_route("0.0.0.0/0", both), kernel_route("10.0.0.0/8", both)});
  EXPECT_EQ(status().rules[0].routes[0].in_force, true);
  EXPECT_EQ(status().rules[0].routes[1].in_force, true);
}

TEST_F(SameNames, RulesOfOneDestinationAreJoinedInTheKernel) {
  dumps_.rules = {rule_dump(1, false, {{"eth0", 1}}, {{"0.0.0.0/0", ""}}),
                  rule_dump(2, false, {{"eth1", 1}}, {{"default", ""}})};
  set_table({kernel_route("0.0.0.0/0", {{"192.0.2.1", "eth0"}, {"198.51.100.1", "eth1"}})});
  EXPECT_EQ(status().rules[0].routes[0].in_force, true);
  EXPECT_EQ(status().rules[1].routes[0].in_force, true);
  set_table({kernel_route("0.0.0.0/0", {{"192.0.2.1", "eth0"}})});
  EXPECT_EQ(status().rules[0].routes[0].in_force, true);
  EXPECT_EQ(status().rules[1].routes[0].in_force, false);
}

TEST_F(SameNames, UnknownWhereTheTableMayNotBeRead) { EXPECT_EQ(in_force(), std::nullopt); }

TEST_F(SameNames, EachTableIsReadOnceAndOnlyWhereItIsNeeded) {
  dumps_.rules.push_back(rule_dump(2, false, {{"eth0", 1}}, {{"10.0.0.0/8", ""}}));
  dumps_.rules.push_back(rule_dump(3, false, {}, {}));
  dumps_.rules.back().vrf = "red";
  dumps_.rules.push_back(rule_dump(4, false, {}, {{"10.0.0.0/8", ""}}));
  dumps_.rules.back().vrf = "blue";
  dumps_.rules.push_back(rule_dump(5, false, {}, {{"::/0", ""}}, true));
  status();
  EXPECT_EQ(asked_, (std::vector<std::string>{"default/4", "blue/4", "default/6"}));
  asked_.clear();
  const Status only_ipv6 = status({.ipv4 = false, .ipv6 = true});
  EXPECT_EQ(asked_, std::vector<std::string>{"default/6"});
  EXPECT_EQ(only_ipv6.rules.size(), 1U);
  EXPECT_TRUE(only_ipv6.interfaces.empty());
}

TEST_F(SameNames, AnotherVrfHasInterfacesOfItsOwn) {
  dumps_.interfaces[2].nexthop = "10.9.9.1";  // the same there, and failed
  dumps_.interfaces.push_back(interface_dump("line", true, "10.9.9.1"));
  dumps_.interfaces.back().vrf = "red";
  dumps_.rules = {rule_dump(3, false, {{"ppp0", 1}}, {{"0.0.0.0/0", ""}})};
  dumps_.rules[0].vrf = "red";
  set_table({});
  tables_["red/4"] = {kernel_route("0.0.0.0/0", {{"10.9.9.1", "ppp0"}})};
  EXPECT_EQ(in_force(), true);
  tables_["red/4"].clear();
  EXPECT_EQ(in_force(), false);
}

TEST_F(SameNames, ExitStatusForScripts) {
  EXPECT_EQ(exit_status_of(status()), kExitNo);
  dumps_.interfaces.pop_back();
  EXPECT_EQ(exit_status_of(status()), kExitOk);
  dumps_.newest.tv_sec = 989;
  EXPECT_TRUE(status().stale);
  EXPECT_EQ(exit_status_of(status()), kExitUnreadable);
  dumps_.newest.tv_sec = 990;
  EXPECT_FALSE(status().stale);
  dumps_.interfaces.clear();
  EXPECT_EQ(exit_status_of(status()), kExitOk);
}

TEST_F(SameNames, ExitStatusIsOfTheWantedFamily) {
  dumps_.interfaces.push_back(interface_dump("eth0", true, "fe80::1", true));
  EXPECT_EQ(exit_status_of(status({.ipv4 = false, .ipv6 = true})), kExitOk);
  EXPECT_EQ(exit_status_of(status({.ipv4 = true, .ipv6 = false})), kExitNo);
}

// Interfaces have names of their own, which the rules' dump does not tell.
class OwnNames : public StatusModelTest {
 protected:
  OwnNames() {
    dumps_.interfaces = {interface_dump("alpha", true, "192.0.2.1"),
                         interface_dump("beta", true, "198.51.100.1"),
                         interface_dump("gamma", false, "203.0.113.1")};
    dumps_.rules = {rule_dump(1, false, {{"eth2", 1}, {"eth1", 1}}, {{"0.0.0.0/0", ""}})};
  }
  // alpha is eth2, beta eth1, gamma eth0.
  static Table with(KernelRoute route) {
    return {kernel_route("192.0.2.0/24", {{"", "eth2"}}, 0),
            kernel_route("198.51.100.0/24", {{"", "eth1"}}, 0),
            kernel_route("203.0.113.0/24", {{"", "eth0"}}, 0), std::move(route)};
  }
};

TEST_F(OwnNames, TheDeviceIsTheOneByWhichTheNextHopIsReached) {
  const auto both = kernel_route("0.0.0.0/0", {{"192.0.2.1", "eth2"}, {"198.51.100.1", "eth1"}});
  set_table(with(both));
  EXPECT_EQ(in_force(), true);
  set_table(with(kernel_route("0.0.0.0/0", {{"192.0.2.1", "eth2"}})));
  EXPECT_EQ(in_force(), false);
  dumps_.rules[0].members = {{"eth2", 1, false}, {"eth0", 1, false}};
  EXPECT_EQ(in_force(), true) << "gamma, which is eth0, has failed";
  set_table(with(both));
  EXPECT_EQ(in_force(), false);
}

TEST_F(OwnNames, ARouteTellsWhatNoPrefixDoes) {
  dumps_.interfaces[0].nexthop = "10.99.0.1";
  const auto both = kernel_route("0.0.0.0/0", {{"10.99.0.1", "eth2"}, {"198.51.100.1", "eth1"}});
  set_table(with(both));
  EXPECT_EQ(in_force(), true);
}

TEST_F(OwnNames, ADefaultRouteOnADeviceTellsNothing) {
  set_table({kernel_route("0.0.0.0/0", {{"", "eth1"}}, 0),
             kernel_route("192.0.2.0/24", {{"", "eth2"}}, 0),
             kernel_route("198.51.100.0/24", {{"", "eth1"}}, 0)});
  dumps_.rules[0].members = {{"eth1", 1, false}};
  dumps_.rules[0].routes = {{"10.0.0.0/8", "", -1, 1}};
  tables_["default/4"].push_back(kernel_route("10.0.0.0/8", {{"198.51.100.1", "eth1"}}));
  EXPECT_EQ(in_force(), true);
}

TEST_F(OwnNames, RulesOfAllInterfacesAreInTheirOrder) {
  // No prefix tells where they are: link-local gateways.
  dumps_.interfaces = {interface_dump("alpha", true, "fe80::1", true),
                       interface_dump("beta", true, "fe80::2", true)};
  dumps_.rules = {rule_dump(1, false, {{"eth2", 1}, {"eth1", 1}}, {{"::/0", ""}}, true)};
  const auto link_local = kernel_route("fe80::/64", {{"", "eth1"}}, 256);
  tables_["default/6"] = {link_local, kernel_route("::/0", {{"fe80::1", "eth2"}})};
  EXPECT_EQ(in_force(), false);
  tables_["default/6"] = {link_local,
                          kernel_route("::/0", {{"fe80::1", "eth2"}, {"fe80::2", "eth1"}})};
  EXPECT_EQ(in_force(), true);
}

TEST_F(OwnNames, LinkLocalPrefixesTellNothing) {
  dumps_.interfaces = {interface_dump("alpha", false, "fe80::1", true),
                       interface_dump("beta", true, "fe80::2", true)};
  dumps_.rules = {rule_dump(1, false, {{"eth2", 1}, {"eth1", 1}}, {{"::/0", ""}}, true)};
  tables_["default/6"] = {kernel_route("fe80::/64", {{"", "eth1"}}, 256),
                          kernel_route("::/0", {{"fe80::2", "eth1"}})};
  EXPECT_EQ(in_force(), true);
}

}  // namespace
}  // namespace lbctl
