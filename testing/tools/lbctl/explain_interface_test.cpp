// One state for each reason why an interface is failed, and all that is said of it.
#include <algorithm>

#include "lbctl/command.h"
#include "lbctl/explain_fixture.h"

namespace lbctl {
namespace {

constexpr const char* kWan1 = "interface wan1 {\n origin eth0\n nexthop 192.0.2.1\n}";

class ExplainInterface : public ExplainFixture {
 protected:
  ExplainInterface() {
    configure(health_with(kWan1));
    add_rule({{"eth0", 1, false}}, "0.0.0.0/0");
    add_rule({{"eth0", 1, true}}, "::/0", true);
  }
};

TEST_F(ExplainInterface, TargetDoesNotAnswer) {
  add_failed("wan1");
  EXPECT_EQ(explained("wan1"), R"(wan1 is FAILED for 1 min 15 s.
  - Target 198.51.100.7: the last probe was not answered; 2 failures in a row, 2 settle it as failed.
  - The next hop 192.0.2.1 is known on eth0 (neighbour entry reachable): what does not answer is behind it, or refuses echo requests.
  - It comes back when its target has been reached 3 times in a row.
  Next step: Try from the router: ping -4 -I eth0 198.51.100.7
)");
  EXPECT_FALSE(is_well_);
}

TEST_F(ExplainInterface, WithoutARuleItHasNoAge) {
  InterfaceDump& dump = add_failed("wan1");
  dump.change_age = 0;
  dump.tests.front() = test("198.51.100.7", kResultNone, 0);
  dumps_.rules.clear();
  EXPECT_THAT(explained("wan1"), testing::StartsWith("wan1 is FAILED.\n  - It is never probed: "));
}

TEST_F(ExplainInterface, ReverseFilterDropsTheReplies) {
  configure(
      health_with("interface wan1 {\n origin eth0\n nexthop 192.0.2.1\n"
                  " source_address 192.0.2.10\n}"));
  machine_.filtering_device = "eth0";
  machine_.devices["eth0"] = {
      .exists = true, .is_up = true, .has_carrier = true, .resolves = false};
  add_failed("wan1");
  EXPECT_EQ(explained("wan1"), R"(wan1 is FAILED for 1 min 15 s.
  - Target 198.51.100.7: the last probe was not answered; 2 failures in a row, 2 settle it as failed.
  - The device drops what comes from 198.51.100.7 to 192.0.2.10.
  - It comes back when its target has been reached 3 times in a row.
  Next step: Let the replies in: ask for 'replies wire', set rp_filter to 0 or lead replies back with a source rule (ip rule add from ADDRESS table NUMBER).
)");
  dumps_.interfaces[0].tests.push_back(test("198.51.100.8", kResultSuccess, 1));
  dumps_.interfaces[0].tests[0] = test("198.51.100.7", kResultNone, 0);
  EXPECT_THAT(explained("wan1"), testing::Not(testing::HasSubstr("drops"))) << "not a failed test";
}

TEST_F(ExplainInterface, ReverseFilterIsOfNoConcern) {
  machine_.filtering_device = "eth0";
  add_failed("wan1");
  configure("options {\nreplies wire\n}\n" + health_with(kWan1));
  EXPECT_THAT(explained("wan1"), testing::Not(testing::HasSubstr("drops"))) << "read before it";
  configuration_.reset();
  EXPECT_THAT(explained("wan1"), testing::Not(testing::HasSubstr("drops"))) << "not known";
  dumps_.interfaces.clear();
  add_failed("wan1", true);
  configure(health_with("interface6 wan1 {\n origin eth0\n nexthop fe80::1\n}"));
  EXPECT_THAT(explained("wan1/6"), testing::Not(testing::HasSubstr("drops"))) << "IPv4 only";
}

TEST_F(ExplainInterface, TargetBeginsToAnswer) {
  add_failed("wan1").tests.front() = test("198.51.100.7", kResultSuccess, 1);
  EXPECT_EQ(explained("wan1"), R"(wan1 is FAILED for 1 min 15 s.
  - Target 198.51.100.7: the last probe was answered; 1 success in a row, 3 settle it as reached.
  - It comes back when its target has been reached 3 times in a row.
  Next step: Wait a moment: a target answers again.
)");
}

TEST_F(ExplainInterface, BurstReachesItsLimits) {
  auto& dump = add_failed("wan1");
  dump.tests.front().measurement = {.measured_jitter = 7,
                                    .measured_loss = 40,
                                    .measured_rtt = 250,
                                    .jitter = 50,
                                    .loss = 20,
                                    .rtt = 200};
  EXPECT_EQ(explained("wan1"), R"(wan1 is FAILED for 1 min 15 s.
  - Target 198.51.100.7: the last burst had loss 40 % (limit 20 %, reached), mean round trip 250 ms (limit 200 ms, reached) and jitter 7 ms (limit 50 ms); 2 failures in a row, 2 settle it as failed.
  - The next hop 192.0.2.1 is known on eth0 (neighbour entry reachable): what does not answer is behind it, or refuses echo requests.
  - It comes back when its target has been reached 3 times in a row.
  Next step: Try from the router: ping -4 -I eth0 198.51.100.7
)");
}

TEST_F(ExplainInterface, BurstThatEndedEarlyHasTheFiguresOfTheOneBefore) {
  auto& dump = add_failed("wan1");
  dump.tests.front().measurement = {.measured_jitter = 0,
                                    .measured_loss = 0,
                                    .measured_rtt = 1,
                                    .jitter = 50,
                                    .loss = 1,
                                    .rtt = 200};
  EXPECT_THAT(explained("wan1"),
              testing::HasSubstr("a request of the last burst was not answered, which ended it; "
                                 "the burst before had loss 0 % (limit 1 %), "
                                 "mean round trip 1 ms (limit 200 ms) and jitter 0 ms (limit 50 "
                                 "ms); 2 failures in a row"));
}

TEST_F(ExplainInterface, NeighbourThatWasNotConfirmedLatelySaysNothing) {
  add_failed("wan1");
  machine_.neighbor_state = NUD_STALE;
  EXPECT_THAT(explained("wan1"),
              testing::HasSubstr("was known on eth0, but the kernel has not confirmed it lately"));
}

TEST_F(ExplainInterface, EveryTargetIsNeeded) {
  configure(health_with("interface wan1 {\n nexthop 192.0.2.1\n check_all\n}"));
  auto& dump = add_failed("wan1");
  dump.tests.push_back(test("203.0.113.9", kResultSuccess, 3));
  EXPECT_EQ(explained("wan1"), R"(wan1 is FAILED for 1 min 15 s.
  - Target 198.51.100.7: the last probe was not answered; 2 failures in a row, 2 settle it as failed.
  - Target 203.0.113.9: the last probe was answered; 3 successes in a row, 3 settle it as reached.
  - The next hop 192.0.2.1 is known on wan1 (neighbour entry reachable): what does not answer is behind it, or refuses echo requests.
  - It comes back when every target (check_all) has been reached 3 times in a row.
  Next step: Try from the router: ping -4 -I wan1 198.51.100.7
)");
}

TEST_F(ExplainInterface, NoProbeHasHadAnOutcome) {
  add_failed("wan1").tests.front() = test("198.51.100.7", kResultNone, 0);
  EXPECT_EQ(explained("wan1"), R"(wan1 is FAILED for 1 min 15 s.
  - Target 198.51.100.7: no probe has had an outcome yet.
  - It comes back when its target has been reached 3 times in a row.
  Next step: Wait for the first outcome (a burst takes up to its count times its timeout); if none comes, look into the daemon's log.
)");
}

TEST_F(ExplainInterface, DeviceIsAbsent) {
  add_failed("wan1");
  machine_.devices["eth0"] = {};
  EXPECT_EQ(explained("wan1"), R"(wan1 is FAILED for 1 min 15 s.
  - There is no device eth0 in VRF default.
  - Target 198.51.100.7: the last probe was not answered; 2 failures in a row, 2 settle it as failed.
  - It comes back when its target has been reached 3 times in a row.
  Next step: Look for it with "ip link"; if it has another name, give that as "origin".
)");
}

TEST_F(ExplainInterface, DeviceIsDown) {
  add_failed("wan1");
  machine_.devices["eth0"] = {.exists = true};
  EXPECT_EQ(explained("wan1"), R"(wan1 is FAILED for 1 min 15 s.
  - The device eth0 is down.
  - Target 198.51.100.7: the last probe was not answered; 2 failures in a row, 2 settle it as failed.
  - It comes back when its target has been reached 3 times in a row.
  Next step: Bring it up: ip link set eth0 up
)");
}

TEST_F(ExplainInterface, DeviceHasNoCarrier) {
  add_failed("wan1");
  machine_.devices["eth0"] = {.exists = true, .is_up = true};
  EXPECT_EQ(explained("wan1"), R"(wan1 is FAILED for 1 min 15 s.
  - The device eth0 is up, but has no carrier.
  - Target 198.51.100.7: the last probe was not answered; 2 failures in a row, 2 settle it as failed.
  - It comes back when its target has been reached 3 times in a row.
  Next step: Check the cable, and whether the modem or switch at its other end is on.
)");
}

TEST_F(ExplainInterface, Ipv6NeedsLinkLayerAddresses) {
  configure(health_with("interface6 gre0 {\n nexthop fe80::1\n}"));
  add_failed("gre0", true);
  machine_.devices["gre0"] = {.exists = true, .is_up = true, .has_carrier = true};
  EXPECT_EQ(explained("gre0/6"), R"(gre0/6 is FAILED for 1 min 15 s.
  - gre0 has no link-layer addresses, and IPv6 tests never succeed on such a device.
  - Target 2001:db8::7: the last probe was not answered; 2 failures in a row, 2 settle it as failed.
  - It comes back when its target has been reached 3 times in a row.
  Next step: Use the uplink for IPv4, or one with link-layer addresses for IPv6.
)");
}

TEST_F(ExplainInterface, VrfMayNotBeEntered) {
  configure(health_with("interface wan1 {\n nexthop 192.0.2.1\n namespace red\n}"));
  add_failed("wan1").vrf = "red";
  dumps_.rules.front().vrf = "red";
  machine_.closed_vrfs = {"red"};
  EXPECT_EQ(explained("wan1"), R"(wan1 is FAILED for 1 min 15 s in VRF red.
  - The device wan1 was not looked at: VRF red cannot be entered: Operation not permitted.
  - Target 198.51.100.7: the last probe was not answered; 2 failures in a row, 2 settle it as failed.
  - It comes back when its target has been reached 3 times in a row.
  Next step: Try from the router: ip netns exec red ping -4 -I wan1 198.51.100.7
)");
}

TEST_F(ExplainInterface, VrfIsMissing) {
  configure(health_with("interface wan1 {\n nexthop 192.0.2.1\n namespace red\n}"));
  add_failed("wan1").vrf = "red";
  dumps_.rules.front().vrf = "red";
  machine_.missing_vrfs = {"red"};
  EXPECT_EQ(explained("wan1"), R"(wan1 is FAILED for 1 min 15 s in VRF red.
  - It is never probed: there is no network namespace red (/var/run/netns/red).
  Next step: Make it (ip netns add red), put the device into it and restart the daemon.
)");
}

TEST_F(ExplainInterface, NobodyProbesWithoutARule) {
  add_failed("wan1");
  dumps_.rules.erase(dumps_.rules.begin());
  EXPECT_EQ(explained("wan1"), R"(wan1 is FAILED for 1 min 15 s.
  - It is never probed: VRF default has no IPv4 rule, and the daemon works only where a family has interfaces and rules.
  Next step: Add an IPv4 rule of that VRF ("rule 1_ipv4 {"), or take the interface out of the health section; then restart the daemon.
)");
}

TEST_F(ExplainInterface, NextHopIsNotResolved) {
  add_failed("wan1");
  machine_.neighbor_state = NUD_FAILED;
  EXPECT_EQ(explained("wan1"), R"(wan1 is FAILED for 1 min 15 s.
  - Target 198.51.100.7: the last probe was not answered; 2 failures in a row, 2 settle it as failed.
  - Nobody on eth0 answers ARP requests for the next hop 192.0.2.1 (the kernel's neighbour entry is failed).
  - It comes back when its target has been reached 3 times in a row.
  Next step: See whether the gateway is on that link: ip -4 neigh show dev eth0; check cable, VLAN, and the next hop's address.
)");
  machine_.neighbor_state = NUD_INCOMPLETE;
  EXPECT_NE(explained("wan1").find("(the kernel's neighbour entry is incomplete)"),
            std::string::npos);
}

TEST_F(ExplainInterface, NextHopIsUnknownToTheKernel) {
  add_failed("wan1");
  machine_.neighbor_state = 0;
  EXPECT_EQ(explained("wan1"), R"(wan1 is FAILED for 1 min 15 s.
  - Target 198.51.100.7: the last probe was not answered; 2 failures in a row, 2 settle it as failed.
  - The kernel has no neighbour entry for the next hop 192.0.2.1 on eth0: ARP requests get no answer.
  - It comes back when its target has been reached 3 times in a row.
  Next step: See whether the gateway is on that link: ip -4 neigh show dev eth0; check cable, VLAN, and the next hop's address.
)");
  machine_.neighbor_state = std::nullopt;
  EXPECT_NE(explained("wan1").find("The kernel did not say what it knows of the next hop"),
            std::string::npos);
}

TEST_F(ExplainInterface, NextHopIsNotConfigured) {
  configure(health_with("interface wan1 {\n}"));
  auto& dump = add_failed("wan1");
  dump.nexthop.clear();
  dump.tests.front() = test("", kResultNone, 0);
  EXPECT_EQ(explained("wan1"), R"(wan1 is FAILED for 1 min 15 s.
  - It has no next hop: the configuration gives none.
  - A test without target waits for the next hop, which it is to ping: it has not been probed.
  - It comes back when its target has been reached 3 times in a row.
  Next step: Give it one: "nexthop ADDRESS" (or dhcp, tunnel, kernel) in its block.
)");
}

TEST_F(ExplainInterface, LeaseIsMissing) {
  configure(health_with("interface wan1 {\n nexthop dhcp\n}"));
  auto& dump = add_failed("wan1");
  dump.nexthop.clear();
  dump.nexthop_is_dhcp = true;
  EXPECT_EQ(explained("wan1"), R"(wan1 is FAILED for 1 min 15 s.
  - No next hop has been found: it is looked for in the lease file /leases/wan1.ipv4 (No such file or directory).
  - Target 198.51.100.7: the last probe was not answered; 2 failures in a row, 2 settle it as failed.
  - It comes back when its target has been reached 3 times in a row.
  Next step: Check that the DHCP client runs, got a lease with a router, and keeps it in that file.
)");
}

TEST_F(ExplainInterface, LeaseNamesNoRouter) {
  configure(health_with("interface wan1 {\n nexthop dhcp\n lease-file /var/lib/wan1.leases\n}"));
  auto& dump = add_failed("wan1");
  dump.nexthop.clear();
  dump.nexthop_is_dhcp = true;
  machine_.files["/var/lib/wan1.leases"] = {"", false, "lease { }\n"};
  EXPECT_EQ(explained("wan1"), R"(wan1 is FAILED for 1 min 15 s.
  - No next hop has been found: it is looked for in the lease file /var/lib/wan1.leases (it names no router that is in force).
  - Target 198.51.100.7: the last probe was not answered; 2 failures in a row, 2 settle it as failed.
  - It comes back when its target has been reached 3 times in a row.
  Next step: Check that the DHCP client runs, got a lease with a router, and keeps it in that file.
)");
}

TEST_F(ExplainInterface, TunnelHasNoPeer) {
  configure(health_with("interface gre0 {\n nexthop tunnel\n}"));
  auto& dump = add_failed("gre0");
  dump.nexthop.clear();
  dump.nexthop_is_tunnel = true;
  EXPECT_EQ(explained("gre0"), R"(gre0 is FAILED for 1 min 15 s.
  - No next hop has been found: it is the point-to-point peer of the device gre0.
  - Target 198.51.100.7: the last probe was not answered; 2 failures in a row, 2 settle it as failed.
  - It comes back when its target has been reached 3 times in a row.
  Next step: Check that the tunnel is there and has a peer address: ip addr show
)");
}

TEST_F(ExplainInterface, KernelHasNoDefaultRoute) {
  configure(health_with("interface wan1 {\n origin eth0\n nexthop kernel\n}"));
  add_failed("wan1").nexthop.clear();
  EXPECT_EQ(explained("wan1"), R"(wan1 is FAILED for 1 min 15 s.
  - No next hop has been found: it is looked for among the default routes by eth0 in the kernel's main table.
  - Target 198.51.100.7: the last probe was not answered; 2 failures in a row, 2 settle it as failed.
  - It comes back when its target has been reached 3 times in a row.
  Next step: Check that another program than the routing daemon puts a default route there: ip -4 route show default dev eth0
)");
}

TEST_F(ExplainInterface, WithoutConfigurationLessIsSaid) {
  configuration_.reset();
  auto& dump = add_failed("wan1");
  dump.nexthop.clear();
  EXPECT_EQ(explained("wan1"), R"(wan1 is FAILED for 1 min 15 s.
  - Its device was not looked at: only the configuration (-f FILE) tells which it is.
  - It has no next hop: none is configured, or the kernel has no default route.
  - Target 198.51.100.7: the last probe was not answered; 2 failures in a row, 2 settle it as failed.
  - It comes back when its target has been reached 3 times in a row.
  Next step: Name the configuration (-f FILE) to be told where it is looked for.
)");
  dump.nexthop_is_dhcp = true;
  EXPECT_NE(explained("wan1").find("No next hop has been found: it is looked for in a DHCP lease."),
            std::string::npos);
}

TEST_F(ExplainInterface, TargetIsAName) {
  add_failed("wan1").tests.front() = test("example.org", kResultNone, 0);
  EXPECT_EQ(explained("wan1"), R"(wan1 is FAILED for 1 min 15 s.
  - Target example.org: it is no address; names are not looked up, and it is never probed.
  - It comes back when its target has been reached 3 times in a row.
  Next step: Give the test an IPv4 address as target, then restart the daemon.
)");
}

TEST_F(ExplainInterface, TargetIsOfTheOtherFamily) {
  add_failed("wan1").tests.front() = test("2001:db8::7", kResultNone, 0);
  EXPECT_EQ(explained("wan1"), R"(wan1 is FAILED for 1 min 15 s.
  - Target 2001:db8::7: it is of the other family and is never probed.
  - It comes back when its target has been reached 3 times in a row.
  Next step: Give the test an IPv4 address as target, then restart the daemon.
)");
}

TEST_F(ExplainInterface, BurstsTimeOutIsRefused) {
  configure(
      health_with("interface wan1 {\n nexthop 192.0.2.1\n test 1 {\n type ping_ext\n target "
                  "198.51.100.7\n timeout 1500\n }\n}"));
  add_failed("wan1");
  EXPECT_EQ(explained("wan1"), R"(wan1 is FAILED for 1 min 15 s.
  - Target 198.51.100.7: its timeout of 1500 ms is refused, so every burst fails: it takes whole seconds only.
  - It comes back when its target has been reached 3 times in a row.
  Next step: Make the timeout a whole number of seconds (1000, 2000, ...), then restart the daemon.
)");
}

TEST_F(ExplainInterface, NoTestAtAll) {
  add_failed("wan1").tests.clear();
  EXPECT_EQ(explained("wan1"), R"(wan1 is FAILED for 1 min 15 s.
  - It has no test, so it never becomes active: the daemon adds the one that it has by default only where the whole configuration could be read.
  Next step: Look for brackets that do not match: lbctl check FILE
)");
}

TEST_F(ExplainInterface, HeldDown) {
  configure(health_with("interface wan1 {\n nexthop 192.0.2.1\n hold-down 90\n}"));
  auto& dump = add_failed("wan1");
  dump.tests.front() = test("198.51.100.7", kResultSuccess, 3);
  dump.failure_age = 20;
  EXPECT_EQ(explained("wan1"), R"(wan1 is FAILED for 1 min 15 s.
  - Target 198.51.100.7: the last probe was answered; 3 successes in a row, 3 settle it as reached.
  - It is healthy again and held down: it comes back once it has been healthy for 1 min 30 s (hold-down 90), in about 1 min 10 s.
  Next step: Wait, or lower hold-down in its block.
)");
}

TEST_F(ExplainInterface, DaemonRunsWithAnotherConfiguration) {
  add_failed("wan7");
  EXPECT_EQ(explained("wan7"), R"(wan7 is FAILED for 1 min 15 s.
  - lb.conf has no such interface: the daemon runs with another configuration, or the file was changed since it started.
  - Its device was not looked at: only the configuration (-f FILE) tells which it is.
  - Target 198.51.100.7: the last probe was not answered; 2 failures in a row, 2 settle it as failed.
  - It comes back when its target has been reached 3 times in a row.
  Next step: Restart the daemon, or name the file that it runs with (-f FILE).
)");
}

TEST_F(ExplainInterface, ActiveOnesAreTold) {
  add_active("wan1");
  EXPECT_EQ(explained("wan1"), R"(wan1 is ACTIVE for 1 min 15 s.
  - Target 198.51.100.7: the last probe was answered; 3 successes in a row, 3 settle it as reached.
  Next step: none, all is well with it.
)");
  EXPECT_TRUE(is_well_);
}

TEST_F(ExplainInterface, ActiveWithoutNextHopCarriesNothing) {
  configure(health_with("interface wan1 {\n nexthop kernel\n}"));
  add_active("wan1", "");
  EXPECT_EQ(explained("wan1"), R"(wan1 is ACTIVE for 1 min 15 s.
  - Target 198.51.100.7: the last probe was answered; 3 successes in a row, 3 settle it as reached.
  - No next hop has been found: it is looked for among the default routes by wan1 in the kernel's main table.
  - It carries no routes as long as it has no next hop.
  Next step: Check that another program than the routing daemon puts a default route there: ip -4 route show default dev wan1
)");
  EXPECT_FALSE(is_well_);
}

TEST_F(ExplainInterface, NameOfTheOtherFamilyOnlyIsMeantForIt) {
  add_active("wan6", "fe80::1", true);
  EXPECT_TRUE(explained("wan6").starts_with("wan6/6 is ACTIVE")) << explained("wan6");
}

TEST_F(ExplainInterface, NothingThatSteersATerminalIsPrinted) {
  add_failed("wan1").tests.front().target = "a\033[2Jb";
  EXPECT_EQ(explained("wan1").find('\033'), std::string::npos);
}

}  // namespace
}  // namespace lbctl
