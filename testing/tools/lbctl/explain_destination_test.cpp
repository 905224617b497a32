// One state for each reason why a destination has the next hops that it has, and all that is said.
#include "lbctl/command.h"
#include "lbctl/explain_fixture.h"

namespace lbctl {
namespace {

constexpr const char* kHealth =
    "health {\n"
    "interface wan1 {\n nexthop 192.0.2.1\n}\n"
    "interface wan2 {\n nexthop dhcp\n}\n"
    "}\n";
constexpr const char* kRule =
    "rule 1_ipv4 {\n"
    "interface wan1 {\n weight 2\n}\n"
    "interface wan2 {\n weight 300\n}\n"
    "target {\n address 0.0.0.0/0\n}\n"
    "}\n";
constexpr const char* kFailover = "rule 1_ipv4 {\n failover\n}\n";

class ExplainDestination : public ExplainFixture {
 protected:
  ExplainDestination() {
    configure(std::string(kHealth) + kRule);
    add_rule({{"wan1", 2, false}, {"wan2", 44, false}}, "0.0.0.0/0");
  }

  // Both links carry, and everybody did what is to be done.
  void make_all_well() {
    add_active("wan1");
    add_active("wan2", "192.0.2.2");
    write_routes({"route 0.0.0.0/0 via 192.0.2.1 weight 2 via 192.0.2.2 weight 300;"});
    machine_.kernel = {
        {"0.0.0.0/0", 32, RTPROT_BIRD, {{"192.0.2.1", "wan1", 2}, {"192.0.2.2", "wan2", 300}}}};
  }
};

TEST_F(ExplainDestination, Carried) {
  make_all_well();
  EXPECT_EQ(explained("default"), R"(0.0.0.0/0 (rule 1_ipv4) leads to wan1, wan2.
  - wan1 carries it by 192.0.2.1, weight 2.
  - wan2 carries it by 192.0.2.2, weight 300.
  Next step: none, all is well with it.
)");
  EXPECT_TRUE(is_well_);
}

TEST_F(ExplainDestination, OneMemberIsDown) {
  make_all_well();
  dumps_.interfaces[0].active = false;
  write_routes({"route 0.0.0.0/0 via 192.0.2.2 weight 300;"});
  machine_.kernel.clear();
  add_kernel_route("0.0.0.0/0", "192.0.2.2", "wan2");
  EXPECT_EQ(explained("0.0.0.0/0"), R"(0.0.0.0/0 (rule 1_ipv4) leads to wan2.
  - wan1 is FAILED for 1 min 15 s.
  - wan2 carries it by 192.0.2.2, weight 300.
  Next step: none, all is well with it.
)");
  EXPECT_TRUE(is_well_);
}

TEST_F(ExplainDestination, AllMembersAreDown) {
  add_failed("wan1");
  add_failed("wan2");
  write_routes({});
  EXPECT_EQ(explained("default"), R"(0.0.0.0/0 (rule 1_ipv4) has no next hop.
  - wan1 is FAILED for 1 min 15 s.
  - wan2 is FAILED for 1 min 15 s.
  Next step: lbctl explain wan1
)");
  EXPECT_FALSE(is_well_);
}

TEST_F(ExplainDestination, LostAgainstAHeavierMember) {
  make_all_well();
  configure(std::string(kHealth) + kRule + kFailover);
  dumps_.rules.front().failover = true;
  write_routes({"route 0.0.0.0/0 via 192.0.2.2 weight 300;"});
  machine_.kernel.clear();
  add_kernel_route("0.0.0.0/0", "192.0.2.2", "wan2");
  EXPECT_EQ(explained("default"), R"(0.0.0.0/0 (rule 1_ipv4, failover) leads to wan2.
  - wan1 stands by: wan2 is heavier (weight 300 against 2).
  - wan2 carries it by 192.0.2.2, weight 300.
  Next step: none, all is well with it.
)");
}

TEST_F(ExplainDestination, LostAgainstAnEarlierName) {
  make_all_well();
  dumps_.rules.front().failover = true;
  dumps_.rules.front().members = {{"wan1", 5, false}, {"wan2", 5, false}};
  configure(std::string(kHealth) +
            "rule 1_ipv4 {\nfailover\ninterface wan1 {\n weight 5\n}\n"
            "interface wan2 {\n weight 5\n}\n}\n");
  write_routes({"route 0.0.0.0/0 via 192.0.2.1 weight 5;"});
  machine_.kernel.clear();
  add_kernel_route("0.0.0.0/0", "192.0.2.1", "wan1");
  EXPECT_EQ(explained("default"), R"(0.0.0.0/0 (rule 1_ipv4, failover) leads to wan1.
  - wan1 carries it by 192.0.2.1, weight 5.
  - wan2 stands by: wan1 has the same weight 5 and comes first by name.
  Next step: none, all is well with it.
)");
}

// The records have the low bytes of weights alone: 44 for 300, 0 for 256.
TEST_F(ExplainDestination, WeightsWithoutAConfiguration) {
  make_all_well();
  configuration_.reset();
  dumps_.rules.front().members = {{"wan1", 2, false}, {"wan2", 44, false}};
  EXPECT_EQ(explained("default"), R"(0.0.0.0/0 (rule 1_ipv4) leads to wan1, wan2.
  - wan1 carries it by 192.0.2.1.
  - wan2 carries it by 192.0.2.2.
  Next step: none, all is well with it.
)");
  dumps_.rules.front().members[1].weight = 0;
  EXPECT_EQ(explained("default"), R"(0.0.0.0/0 (rule 1_ipv4) is routed.
  - wan1 carries it by 192.0.2.1.
  - wan2 is ACTIVE; whether it has a weight only the configuration tells (-f FILE).
  - The routing daemon's file /routes/default.ipv4 has it by 192.0.2.1, 192.0.2.2.
  Next step: none, all is well with it.
)");
}

TEST_F(ExplainDestination, FailoverWithoutAConfigurationIsTheDaemonsChoice) {
  make_all_well();
  configuration_.reset();
  dumps_.rules.front().failover = true;
  dumps_.rules.front().members = {{"wan1", 44, false}, {"wan2", 2, false}};  // 300 and 258
  dumps_.rules.front().routes.front().nexthop = "192.0.2.2";
  write_routes({"route 0.0.0.0/0 via 192.0.2.2 weight 258;"});
  machine_.kernel.clear();
  add_kernel_route("0.0.0.0/0", "192.0.2.2", "wan2");
  EXPECT_EQ(explained("default"), R"(0.0.0.0/0 (rule 1_ipv4, failover) leads to wan2.
  - wan1 stands by: wan2 is chosen.
  - wan2 carries it by 192.0.2.2.
  Next step: none, all is well with it.
)");
  dumps_.rules.front().routes.front().nexthop.clear();
  EXPECT_THAT(explained("default"), testing::HasSubstr("  - wan1 stands by: none is chosen.\n"));
}

TEST_F(ExplainDestination, NoNextHopYet) {
  add_failed("wan1");
  add_active("wan2", "").nexthop_is_dhcp = true;
  write_routes({});
  EXPECT_EQ(explained("default"), R"(0.0.0.0/0 (rule 1_ipv4) has no next hop.
  - wan1 is FAILED for 1 min 15 s.
  - wan2 is ACTIVE, but has no next hop yet; it is looked for in the lease file /leases/wan2.ipv4.
  Next step: lbctl explain wan1
)");
}

TEST_F(ExplainDestination, HeaviestHasNoNextHopYet) {
  make_all_well();
  configure(std::string(kHealth) + kRule + kFailover);
  dumps_.rules.front().failover = true;
  dumps_.interfaces[1].nexthop.clear();
  write_routes({});
  EXPECT_EQ(explained("default"), R"(0.0.0.0/0 (rule 1_ipv4, failover) has no next hop.
  - wan1 stands by: wan2 is heavier (weight 300 against 2).
  - wan2 is ACTIVE and the heaviest, but has no next hop yet; it is looked for in the lease file /leases/wan2.ipv4.
  Next step: lbctl explain wan2
)");
  // With bird2 it is passed over.
  configure("options {\n routing-daemon bird2\n}\n" + std::string(kHealth) + kRule + kFailover);
  write_routes({"route 0.0.0.0/0 via 192.0.2.1%'wan1' onlink weight 2;"});
  machine_.kernel.clear();
  add_kernel_route("0.0.0.0/0", "192.0.2.1", "wan1");
  EXPECT_EQ(explained("default"), R"(0.0.0.0/0 (rule 1_ipv4, failover) leads to wan1.
  - wan2 is ACTIVE, but has no next hop yet; it is looked for in the lease file /leases/wan2.ipv4.
  - wan1 carries it by 192.0.2.1, weight 2.
  Next step: none, all is well with it.
)");
  EXPECT_TRUE(is_well_);
}

TEST_F(ExplainDestination, MemberIsInAnotherVrf) {
  configure(
      "health {\ninterface wan1 {\n nexthop 192.0.2.1\n namespace red\n}\n}\n"
      "rule 1_ipv4 {\ninterface wan1 {\n weight 2\n}\n}\n");
  add_active("wan1").vrf = "red";
  add_active("wan2", "192.0.2.2");
  write_routes({});
  EXPECT_EQ(explained("default"), R"(0.0.0.0/0 (rule 1_ipv4) has no next hop.
  - wan1 is in VRF red, and the rule is in VRF default.
  Next step: Give the rule and the interface the same "namespace".
)");
}

TEST_F(ExplainDestination, VrfHasNoInterface) {
  dumps_.rules.front().vrf = "red";
  add_active("wan1");
  EXPECT_EQ(explained("default"), R"(0.0.0.0/0 (rule 1_ipv4 in VRF red) has no next hop.
  - VRF red has no IPv4 interface in the health section, so the daemon does not work there.
  Next step: Give the rule's interfaces the "namespace" of the rule, then restart the daemon.
)");
}

TEST_F(ExplainDestination, MembersThatNeverCarry) {
  configure(std::string(kHealth) +
            "rule 1_ipv4 {\n"
            "interface wan2 {\n}\n"
            "interface wan9 {\n weight 1\n}\n"
            "interface6 wan8 {\n weight 1\n}\n"
            "}\n");
  make_all_well();
  write_routes({});
  EXPECT_EQ(explained("default"), R"(0.0.0.0/0 (rule 1_ipv4) has no next hop.
  - wan8/6 is of the other family.
  - wan9 has no interface of that name in the health section.
  - wan2 has no weight in the rule, so it carries nothing.
  Next step: Put it into a rule of its own family.
)");
}

TEST_F(ExplainDestination, DeviceIsNobodysNameWithoutAConfiguration) {
  configuration_.reset();
  make_all_well();
  dumps_.rules.front().members = {{"eth0", 1, false}};
  EXPECT_EQ(explained("default"), R"(0.0.0.0/0 (rule 1_ipv4) is routed.
  - eth0 is a device that no interface has as its name.
  - The routing daemon's file /routes/default.ipv4 has it by 192.0.2.1, 192.0.2.2.
  Next step: Name the configuration (-f FILE): only it tells which interface has that device.
)");
}

TEST_F(ExplainDestination, NotInTheFile) {
  make_all_well();
  write_routes({"route 10.0.0.0/8 via 192.0.2.1 weight 2;"});
  EXPECT_EQ(explained("default"), R"(0.0.0.0/0 (rule 1_ipv4) should lead to wan1, wan2.
  - wan1 carries it by 192.0.2.1, weight 2.
  - wan2 carries it by 192.0.2.2, weight 300.
  - It is not in the routing daemon's file /routes/default.ipv4.
  Next step: Look for "error writing file" in the log, and whether another program writes /routes/default.ipv4; a restart of the daemon writes it anew.
)");
}

TEST_F(ExplainDestination, FileIsMissing) {
  make_all_well();
  machine_.files.clear();
  EXPECT_EQ(explained("default"), R"(0.0.0.0/0 (rule 1_ipv4) should lead to wan1, wan2.
  - wan1 carries it by 192.0.2.1, weight 2.
  - wan2 carries it by 192.0.2.2, weight 300.
  - The routing daemon's file /routes/default.ipv4 cannot be read: No such file or directory.
  Next step: Make its directory where it is missing, see that the daemon may write there, and look for "error writing file" in the log.
)");
}

TEST_F(ExplainDestination, LeftOutByTheSyntax) {
  configure("options {\n routing-daemon bird2\n}\n" + std::string(kHealth) +
            "rule 1_ipv4 {\ninterface wan1 {\n weight 2\n}\n"
            "target {\n address 10.0.0.0/99\n}\n}\n");
  make_all_well();
  dumps_.rules.front().routes = {{"10.0.0.0/99", "", -1, 1}};
  write_routes({});
  EXPECT_EQ(explained("10.0.0.0/99"), R"(10.0.0.0/99 (rule 1_ipv4) should lead to wan1.
  - wan1 carries it by 192.0.2.1, weight 2.
  - It is not in the routing daemon's file /routes/default.ipv4.
  - The daemon leaves it out: rule 1_ipv4: destination '10.0.0.0/99' left out: no IPv4 address or prefix.
  Next step: Mend the rule: lbctl check lb.conf
)");
}

TEST_F(ExplainDestination, FileSaysSomethingElse) {
  make_all_well();
  write_routes({"route 0.0.0.0/0 via 192.0.2.9 weight 2;"});
  add_kernel_route("0.0.0.0/0", "192.0.2.9", "wan1", 31);
  EXPECT_EQ(explained("default"), R"(0.0.0.0/0 (rule 1_ipv4) should lead to wan1, wan2.
  - wan1 carries it by 192.0.2.1, weight 2.
  - wan2 carries it by 192.0.2.2, weight 300.
  - The routing daemon's file /routes/default.ipv4 has it by 192.0.2.9, which is not what the states above give.
  Next step: Look again in a moment; if it stays so, look for "error writing file" in the log.
)");
}

TEST_F(ExplainDestination, LastRouteIsKept) {
  make_all_well();
  for (InterfaceDump& interface : dumps_.interfaces) interface.active = false;
  EXPECT_EQ(explained("default"), R"(0.0.0.0/0 (rule 1_ipv4) has no next hop.
  - wan1 is FAILED for 1 min 15 s.
  - wan2 is FAILED for 1 min 15 s.
  - The routing daemon's file /routes/default.ipv4 has it by 192.0.2.1, 192.0.2.2: nobody is left to carry it, and its last route stays (keep-last-routes, or nothing was written since).
  Next step: lbctl explain wan1
)");
}

TEST_F(ExplainDestination, RoutingDaemonDoesNotRun) {
  make_all_well();
  machine_.kernel.clear();
  machine_.routing_fault = "its pid file /var/run/routing.pid: No such file or directory";
  EXPECT_EQ(explained("default"), R"(0.0.0.0/0 (rule 1_ipv4) should lead to wan1, wan2.
  - wan1 carries it by 192.0.2.1, weight 2.
  - wan2 carries it by 192.0.2.2, weight 300.
  - It is in the routing daemon's file /routes/default.ipv4, but not in the kernel's table.
  - The routing daemon does not seem to run: its pid file /var/run/routing.pid: No such file or directory.
  Next step: Start the routing daemon with /pids/default as its pid file (bird -P).
)");
}

TEST_F(ExplainDestination, RoutingDaemonRefusesTheFile) {
  make_all_well();
  machine_.kernel.clear();
  machine_.bird_fault = ":4:30: Weight must be in range 1-256";
  EXPECT_EQ(explained("default"), R"(0.0.0.0/0 (rule 1_ipv4) should lead to wan1, wan2.
  - wan1 carries it by 192.0.2.1, weight 2.
  - wan2 carries it by 192.0.2.2, weight 300.
  - It is in the routing daemon's file /routes/default.ipv4, but not in the kernel's table.
  - bird refuses the whole file: /routes/default.ipv4:4:30: Weight must be in range 1-256.
  Next step: Mend what it names: lbctl check lb.conf, and lbctl routes lb.conf --check-bird
)");
}

TEST_F(ExplainDestination, InTheFileButNotInTheKernel) {
  make_all_well();
  machine_.kernel.clear();
  EXPECT_EQ(explained("default"), R"(0.0.0.0/0 (rule 1_ipv4) should lead to wan1, wan2.
  - wan1 carries it by 192.0.2.1, weight 2.
  - wan2 carries it by 192.0.2.2, weight 300.
  - It is in the routing daemon's file /routes/default.ipv4, but not in the kernel's table.
  Next step: See what the routing daemon makes of it: birdc show route for 0.0.0.0/0 all. Its next hop must be within a prefix of its interface, or the option "routing-daemon bird2" set.
)");
}

TEST_F(ExplainDestination, AnotherProgramsRouteIsPreferred) {
  make_all_well();
  add_kernel_route("0.0.0.0/0", "203.0.113.1", "eth9", 0, RTPROT_DHCP);
  EXPECT_EQ(explained("default"), R"(0.0.0.0/0 (rule 1_ipv4) should lead to wan1, wan2.
  - wan1 carries it by 192.0.2.1, weight 2.
  - wan2 carries it by 192.0.2.2, weight 300.
  - It is in the kernel's table with metric 32, but another route is preferred: by 203.0.113.1 dev eth9 (metric 0, from a DHCP client).
  Next step: Take the other route away, or give it a higher metric than the routing daemon's.
)");
  EXPECT_FALSE(is_well_);
}

// It leads there, and would still when the link has failed.
TEST_F(ExplainDestination, AnotherProgramsRouteByTheSameNextHop) {
  make_all_well();
  dumps_.interfaces[1].active = false;
  write_routes({"route 0.0.0.0/0 via 192.0.2.1 weight 2;"});
  machine_.kernel.clear();
  add_kernel_route("0.0.0.0/0", "192.0.2.1", "wan1", 100, RTPROT_DHCP);
  const std::string text = explained("default");
  EXPECT_NE(
      text.find("The kernel's route to it goes by 192.0.2.1 dev wan1 (metric 100, from a DHCP "
                "client) instead."),
      std::string::npos)
      << text;
  EXPECT_FALSE(is_well_);
}

TEST_F(ExplainDestination, RoutingDaemonDoesNotIncludeTheFile) {
  make_all_well();
  machine_.kernel.clear();
  machine_.bird_configuration = "/etc/bird/bird.conf";
  machine_.bird_fault = ":4:1: of no concern";
  EXPECT_EQ(explained("default"), R"(0.0.0.0/0 (rule 1_ipv4) should lead to wan1, wan2.
  - wan1 carries it by 192.0.2.1, weight 2.
  - wan2 carries it by 192.0.2.2, weight 300.
  - It is in the routing daemon's file /routes/default.ipv4, but not in the kernel's table.
  - The routing daemon does not read it: its configuration /etc/bird/bird.conf has no line that includes it.
  Next step: Add the line include "/routes/default.ipv4"; to /etc/bird/bird.conf, and have it read that: birdc configure
)");
  EXPECT_FALSE(is_well_);
}

TEST_F(ExplainDestination, OnlyAnotherProgramsRouteIsThere) {
  make_all_well();
  machine_.kernel.clear();
  add_kernel_route("0.0.0.0/0", "203.0.113.1", "eth9", 0, RTPROT_DHCP);
  EXPECT_EQ(explained("default"), R"(0.0.0.0/0 (rule 1_ipv4) should lead to wan1, wan2.
  - wan1 carries it by 192.0.2.1, weight 2.
  - wan2 carries it by 192.0.2.2, weight 300.
  - It is in the routing daemon's file /routes/default.ipv4, but not in the kernel's table.
  - The kernel's route to it goes by 203.0.113.1 dev eth9 (metric 0, from a DHCP client) instead.
  Next step: See what the routing daemon makes of it: birdc show route for 0.0.0.0/0 all. Its next hop must be within a prefix of its interface, or the option "routing-daemon bird2" set.
)");
}

TEST_F(ExplainDestination, KernelMayNotBeAsked) {
  make_all_well();
  machine_.closed_vrfs = {"default"};
  EXPECT_EQ(explained("default"), R"(0.0.0.0/0 (rule 1_ipv4) leads to wan1, wan2.
  - wan1 carries it by 192.0.2.1, weight 2.
  - wan2 carries it by 192.0.2.2, weight 300.
  - It is in the routing daemon's file; the kernel's table was not looked at: VRF default cannot be entered: Operation not permitted.
  Next step: Ask again as root to be told whether it is in force.
)");
  EXPECT_TRUE(is_well_);
}

TEST_F(ExplainDestination, AnAddressIsExplainedByWhatCoversIt) {
  make_all_well();
  dumps_.rules.front().routes.push_back({"10.0.0.0/8", "", -1, 2});
  EXPECT_TRUE(explained("10.1.2.3").starts_with("10.0.0.0/8 (rule 1_ipv4)"));
  EXPECT_TRUE(explained("10.0.0.0/8").starts_with("10.0.0.0/8 (rule 1_ipv4)"));
  EXPECT_TRUE(explained("11.1.2.3").starts_with("0.0.0.0/0 (rule 1_ipv4)"));
}

TEST_F(ExplainDestination, DefaultIsOfBothFamilies) {
  make_all_well();
  add_rule({{"wan1", 1, true}}, "default", true);
  const std::string text = explained("default");
  EXPECT_NE(text.find("0.0.0.0/0 (rule 1_ipv4)"), std::string::npos) << text;
  EXPECT_NE(text.find("default (rule 2_ipv6)"), std::string::npos) << text;
}

TEST_F(ExplainDestination, WhatNobodyKnowsIsAUsageError) {
  make_all_well();
  for (const char* subject : {"2001:db8::/32", "wan9", "10.0.0.0/99", "/", "\n"}) {
    try {
      explained(subject);
      ADD_FAILURE() << subject;
    } catch (const Failure& failure) {
      EXPECT_EQ(failure.exit_status(), kExitUsage);
      EXPECT_NE(std::string(failure.what()).find("is neither an interface"), std::string::npos);
    }
  }
}

TEST_F(ExplainDestination, AllIsWell) {
  make_all_well();
  EXPECT_EQ(explained(), "All is well: 2 interfaces active, 1 destination routed.\n");
  EXPECT_TRUE(is_well_);
}

TEST_F(ExplainDestination, WithoutASubjectAllThatIsNotWellIsExplained) {
  make_all_well();
  dumps_.interfaces[0].active = false;
  EXPECT_TRUE(explained().starts_with("wan1 is FAILED")) << explained();
  EXPECT_EQ(explained().find("wan2 is"), std::string::npos) << explained();
  EXPECT_FALSE(is_well_);
  machine_.kernel.clear();
  EXPECT_NE(explained().find("0.0.0.0/0 (rule 1_ipv4) should lead to wan2."), std::string::npos)
      << explained();
}

TEST_F(ExplainDestination, OldDumpsAreSaidToBeOld) {
  make_all_well();
  dumps_.newest.tv_sec = kNow - 40;
  EXPECT_EQ(explained(), R"(The dump files are 40 s old: all below was so then.
  - The daemon writes them every second: it does not run, or hangs.
  Next step: See whether the daemon runs: pgrep -x lb, and its log.
All is well: 2 interfaces active, 1 destination routed.
)");
  EXPECT_FALSE(is_well_);
}

TEST_F(ExplainDestination, MissingConfigurationIsSaid) {
  configuration_.reset();
  make_all_well();
  const Answer found = answer({dumps_, nullptr, machine_}, "", kNow);
  EXPECT_EQ(found.text, R"(All is well: 2 interfaces active, 1 destination routed.
The configuration was not looked at (-f FILE): it tells devices, where next hops are looked for, hold-down, check_all, and time-outs.
)");
}

}  // namespace
}  // namespace lbctl
