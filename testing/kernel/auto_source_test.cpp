// The source that a real kernel chooses, and ours beside it.
#include "tests/link/auto_source.h"

#include <gmock/gmock.h>

#include "support/recorded_log.h"
#include "support/wrapped_calls.h"
#include "veth_test.h"

using testing::IsEmpty;

namespace {

class KernelAutoSource : public VethTest {
 protected:
  std::string source(const std::string& target) { return auto_source(kIpv6, near(), target); }

  // Without the kernel's choice.
  std::string own_choice(const std::string& target) {
    const Fault fault("connect", ENETUNREACH);
    return source(target);
  }

  void add(const std::string& address, const std::string& options = "") {
    run("ip -6 addr add " + address + " nodad dev " + near() + " " + options);
  }
};

}  // namespace

TEST_F(KernelAutoSource, Ipv4NeedsNoRoute) {
  run("ip addr add 192.0.2.10/24 dev " + near());
  EXPECT_EQ(auto_source(kIpv4, near(), "198.51.100.7"), "192.0.2.10");
  EXPECT_EQ(auto_source(kIpv4, near(), "192.0.2.1"), "192.0.2.10");
  run("ip addr add 203.0.113.10/24 dev " + near());
  EXPECT_EQ(auto_source(kIpv4, near(), "203.0.113.1"), "203.0.113.10");
  EXPECT_EQ(auto_source(kIpv4, "none", "203.0.113.1"), "");
}

TEST_F(KernelAutoSource, GlobalSourceForATargetBehindTheProvider) {
  add("fe80::10/64");
  add("2001:db8:1::10/64");
  EXPECT_EQ(source("2001:db8:7::7"), "2001:db8:1::10") << "without a route";
  run("ip -6 route add default via fe80::1 dev " + near());
  EXPECT_EQ(source("2001:db8:7::7"), "2001:db8:1::10");
  EXPECT_EQ(source("fe80::1"), "fe80::10");
  EXPECT_THAT(log_records(), IsEmpty());
}

TEST_F(KernelAutoSource, RouteByAnotherInterfaceIsNoRoute) {
  make_second_pair();
  add("2001:db8:1::10/64");
  run("ip -6 addr add 2001:db8:2::10/64 nodad dev " + near2());
  run("ip -6 route add default via 2001:db8:2::1 dev " + near2());
  EXPECT_EQ(source("2001:db8:7::7"), "2001:db8:1::10");
  EXPECT_EQ(auto_source(kIpv6, near2(), "2001:db8:7::7"), "2001:db8:2::10");
}

TEST_F(KernelAutoSource, RouteThatRefusesIsNoRoute) {
  add("2001:db8:1::10/64");
  for (const std::string type : {"unreachable", "prohibit", "blackhole"}) {
    run("ip -6 route add " + type + " default metric 4000");
    EXPECT_EQ(source("2001:db8:7::7"), "2001:db8:1::10") << type;
    run("ip -6 route del " + type + " default metric 4000");
    run("ip addr add 192.0.2.10/24 dev " + near());
    run("ip route add " + type + " default metric 4000");
    EXPECT_EQ(auto_source(kIpv4, near(), "198.51.100.7"), "192.0.2.10") << type;
    run("ip route del " + type + " default metric 4000");
    run("ip addr del 192.0.2.10/24 dev " + near());
  }
}

TEST_F(KernelAutoSource, PolicyRuleThatRefusesIsNoRoute) {
  add("2001:db8:1::10/64");
  run("ip addr add 192.0.2.10/24 dev " + near());
  for (const std::string type : {"unreachable", "prohibit", "blackhole"}) {
    run("ip -6 rule add priority 40000 " + type);
    EXPECT_EQ(source("2001:db8:7::7"), "2001:db8:1::10") << type;
    run("ip -6 rule del priority 40000");
    run("ip rule add priority 40000 " + type);
    EXPECT_EQ(auto_source(kIpv4, near(), "198.51.100.7"), "192.0.2.10") << type;
    run("ip rule del priority 40000");
  }
}

TEST_F(KernelAutoSource, ChangedPrefixIsFollowed) {
  add("fe80::10/64");
  add("2001:db8:1::10/64");
  EXPECT_EQ(source("2001:db8:7::7"), "2001:db8:1::10");
  run("ip -6 addr change 2001:db8:1::10/64 preferred_lft 0 valid_lft 600 dev " + near());
  add("2001:db8:2::10/64");
  EXPECT_EQ(source("2001:db8:7::7"), "2001:db8:2::10") << "deprecated ones are the last";
  run("ip -6 addr del 2001:db8:1::10/64 dev " + near());
  run("ip -6 addr del 2001:db8:2::10/64 dev " + near());
  EXPECT_EQ(source("2001:db8:7::7"), "fe80::10");
}

TEST_F(KernelAutoSource, AddressThatIsNotVerifiedIsNone) {
  // For a minute nobody can know whether another host has it.
  run("echo 60000 > /proc/sys/net/ipv6/neigh/" + near() + "/retrans_time_ms");
  run("ip -6 addr add 2001:db8:1::10/64 dev " + near());
  EXPECT_EQ(source("2001:db8:7::7"), "");
  run("ip -6 addr del 2001:db8:1::10/64 dev " + near());
  add("2001:db8:1::10/64");
  EXPECT_EQ(source("2001:db8:7::7"), "2001:db8:1::10");
}

TEST_F(KernelAutoSource, OursIsTheKernelsChoice) {
  make_second_pair();
  run("ip -6 addr add fd00:2::10/64 nodad dev " + near2());
  run("ip -6 addr add 2001:db8:2::10/64 nodad dev " + near2());
  add("fe80::10/64");
  for (const char* address : {"2001:db8:1::10/64", "2001:db8:1::8000/128", "2001:db8:9::10/48",
                              "fd00:1::10/64", "2002:c633:6401::10/64", "2001:0:1::10/64"}) {
    add(address);
  }
  run("ip -6 route add default via fe80::1 dev " + near());
  for (const char* target :
       {"2001:db8:1::1", "2001:db8:1::8001", "2001:db8:7::7", "2001:db8:9:7::7", "2a00::1",
        "fd00:1::1", "fd00:2::1", "fdff::1", "2002:1:2::1", "2001:0:9::9", "fe80::1"}) {
    const std::string kernels = source(target);
    EXPECT_NE(kernels, "") << target;
    EXPECT_EQ(own_choice(target), kernels) << target;
  }
  EXPECT_THAT(log_records(), IsEmpty());
}
