// What "discovery linux" and "lease-file" change.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstring>

#include "routing/nexthop_discovery.h"
#include "support/model_builder.h"
#include "support/recorded_log.h"
#include "support/redirected_places.h"
#include "support/virtual_clock/virtual_clock.h"
#include "support/wrapped_calls.h"

using testing::ElementsAre;
using testing::IsEmpty;

namespace {

constexpr const char* kLease =
    "lease {\n  interface \"eth0\";\n  option routers 192.0.2.1;\n  expire 3 2023/11/14 "
    "22:20:00;\n}\n"
    "lease {\n  interface \"eth0\";\n  option routers 192.0.2.2;\n  expire 3 2023/11/14 "
    "22:15:00;\n}\n";

// wan1 is eth0 to Linux.
class NexthopDiscoveryLinuxTest : public RedirectedPlacesTest {
 protected:
  LBInterface& add(const std::string& nexthop, bool ipv6 = false) {
    LBInterface& interface = add_interface_via(config_, "wan1", nexthop, ipv6);
    interface.origin = "eth0";
    interface.options = config_.options;
    return interface;
  }
  void resolve(bool ipv6 = false, const std::string& vrf = kDefaultNamespace) {
    resolve_dhcp_nexthops(config_, worker_of(ipv6, vrf));
  }
  void write_lease(const std::string& name, const std::string& text, bool ipv6 = false) {
    directory_.write(lease_file_path(name, ipv6), text);
  }

  // A peer for each of the names; the first is 192.0.2.11.
  void resolve_tunnels(std::vector<std::string> names) {
    CallHook hook(wrapped::getifaddrs, [&](ifaddrs** result) {
      struct Block {
        ifaddrs entry;
        sockaddr_in peer;
        char name[16];
      };
      auto* blocks = static_cast<Block*>(calloc(names.size(), sizeof(Block)));
      for (size_t i = 0; i < names.size(); ++i) {
        names[i].copy(blocks[i].name, sizeof(blocks[i].name) - 1);
        blocks[i].entry.ifa_name = blocks[i].name;
        blocks[i].peer.sin_family = AF_INET;
        blocks[i].peer.sin_addr.s_addr = htonl(0xc000020bU + static_cast<uint32_t>(i));
        blocks[i].entry.ifa_dstaddr = reinterpret_cast<sockaddr*>(&blocks[i].peer);
        if (i > 0) blocks[i - 1].entry.ifa_next = &blocks[i].entry;
      }
      *result = &blocks[0].entry;
      return 0;
    });
    resolve_tunnel_nexthops(config_, worker_of(false));
  }

  LBConfig config_;
};

class NexthopDiscoveryLinuxOnTest : public NexthopDiscoveryLinuxTest {
 protected:
  NexthopDiscoveryLinuxOnTest() { config_.options->linux_discovery = true; }
};

}  // namespace

TEST_F(NexthopDiscoveryLinuxOnTest, NewestLeaseUnderTheLinuxName) {
  LBInterface& interface = add("dhcp");
  write_lease("wan1", "  option routers 192.0.2.66;\n");
  write_lease("eth0", kLease);
  resolve();  // it is 22:13:20
  EXPECT_EQ(found(interface), "192.0.2.2");
  virtual_clock::set_wall({1'700'000'100, 0});  // 22:15:00
  resolve();
  EXPECT_EQ(found(interface), "192.0.2.1");
  virtual_clock::set_wall({1'700'000'400, 0});  // 22:20:00
  resolve();
  EXPECT_EQ(found(interface), "192.0.2.1") << "the last one found is kept";
  EXPECT_THAT(log_records(), IsEmpty());
}

TEST_F(NexthopDiscoveryLinuxTest, OffTheFirstLeaseUnderTheConfiguredName) {
  LBInterface& interface = add("dhcp");
  write_lease("wan1", kLease);
  write_lease("eth0", "lease {\n  option routers 192.0.2.66;\n}\n");
  resolve();
  EXPECT_EQ(found(interface), "192.0.2.1");
}

TEST_F(NexthopDiscoveryLinuxOnTest, Ipv6FileOfAScript) {
  LBInterface& interface = add("dhcp", true);
  write_lease("eth0", "lease6 {\nnew_routers='fe80::9'\n}\nnew_routers='fe80::12 fe80::2'\n", true);
  resolve(true);
  EXPECT_EQ(found(interface), "fe80::12");
}

TEST_F(NexthopDiscoveryLinuxTest, OffTheListLosesACharacter) {
  LBInterface& interface = add("dhcp", true);
  write_lease("wan1", "new_routers='fe80::12 fe80::2'\n", true);
  resolve(true);
  EXPECT_EQ(found(interface), "fe80::1");
}

TEST_F(NexthopDiscoveryLinuxOnTest, WhatIsNoAddressNeverTakesTheEarlierOneAway) {
  LBInterface& interface = add("dhcp");
  set_found(interface, "192.0.2.9");
  for (const char* text : {"", "option routers ;\n", "lease { option routers ; }", "lease { }",
                           "lease { option routers home; }"}) {
    write_lease("eth0", text);
    resolve();
    EXPECT_EQ(found(interface), "192.0.2.9") << text;
  }
  EXPECT_THAT(log_records(), IsEmpty());
}

TEST_F(NexthopDiscoveryLinuxOnTest, WarningNamesTheFile) {
  add("dhcp");
  resolve();
  EXPECT_THAT(log_records(),
              ElementsAre(LoggedWarning("Failed to get routers option from DHCP on interface eth0 "
                                        "(lease file '" +
                                        lease_file_path("eth0", false) + "')")));
}

TEST_F(NexthopDiscoveryLinuxOnTest, LeaseFileElsewhere) {
  LBInterface& interface = add("dhcp");
  interface.lease_file = directory_.path() + "/lib/dhclient.eth0.leases";
  write_lease("eth0", "lease { option routers 192.0.2.66; }");
  resolve();
  EXPECT_THAT(log_records(),
              ElementsAre(LoggedWarning("Failed to get routers option from DHCP on interface eth0 "
                                        "(lease file '" +
                                        interface.lease_file + "')")));
  directory_.write(interface.lease_file, kLease);
  resolve();
  EXPECT_EQ(found(interface), "192.0.2.2");
}

TEST_F(NexthopDiscoveryLinuxTest, LeaseFileElsewhereIsReadAsDocumentedWithoutTheOption) {
  LBInterface& interface = add("dhcp");
  interface.lease_file = directory_.path() + "/lib/dhclient.eth0.leases";
  resolve();
  EXPECT_THAT(log_records(),
              ElementsAre(LoggedWarning("Failed to get routers option from DHCP on interface eth0 "
                                        "(lease file '" +
                                        interface.lease_file + "')")));
  directory_.write(interface.lease_file, kLease);
  resolve();
  EXPECT_EQ(found(interface), "192.0.2.1");
  EXPECT_FALSE(interface.follows_nexthop());
}

// Its own worker's thread alone sees the next hop change.
TEST_F(NexthopDiscoveryLinuxOnTest, LeasesOfOtherVrfsAreLeftToTheirWorkers) {
  LBInterface& interface = add("dhcp");
  interface.vrf = "red";
  write_lease("eth0", kLease);
  resolve();
  EXPECT_EQ(found(interface), "");
  resolve(false, "red");
  EXPECT_EQ(found(interface), "192.0.2.2");
  EXPECT_THAT(log_records(), IsEmpty());
}

TEST_F(NexthopDiscoveryLinuxOnTest, TunnelUnderTheLinuxName) {
  LBInterface& interface = add("tunnel");
  resolve_tunnels({"wan1", "eth0"});
  EXPECT_EQ(found(interface), "192.0.2.12");
}

TEST_F(NexthopDiscoveryLinuxTest, OffTheTunnelUnderTheConfiguredName) {
  LBInterface& interface = add("tunnel");
  resolve_tunnels({"eth0", "wan1"});
  EXPECT_EQ(found(interface), "192.0.2.12");
}

TEST_F(NexthopDiscoveryLinuxTest, WhoFollowsTheNextHop) {
  const std::vector<std::pair<const char*, std::pair<bool, bool>>> expected{
      {"192.0.2.1", {false, false}},
      {"dhcp", {false, true}},
      {"tunnel", {false, true}},
      {"kernel", {true, true}},
  };
  for (const auto& [nexthop, follows] : expected) {
    const LBInterface& interface = add(nexthop);
    config_.options->linux_discovery = false;
    EXPECT_EQ(interface.follows_nexthop(), follows.first) << nexthop;
    config_.options->linux_discovery = true;
    EXPECT_EQ(interface.follows_nexthop(), follows.second) << nexthop;
  }
}
