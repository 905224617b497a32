// Next hops from DHCP leases.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "routing/nexthop_discovery.h"
#include "support/model_builder.h"
#include "support/recorded_log.h"
#include "support/redirected_places.h"
#include "support/wrapped_calls.h"

using testing::ElementsAre;
using testing::IsEmpty;

namespace {

class NexthopDiscoveryDhcpTest : public RedirectedPlacesTest {
 protected:
  void resolve(bool ipv6 = false) { resolve_dhcp_nexthops(config_, worker_of(ipv6)); }
  void write_lease(const std::string& name, const std::string& text, bool ipv6 = false) {
    directory_.write(lease_file_path(name, ipv6), text);
  }
  void lease(const std::string& name, const std::string& router) {
    write_lease(name, "  option routers " + router + ";\n");
  }

  LBConfig config_;
};

struct FamilyLease {
  bool ipv6;
  const char* text;
  const char* router;
};

class NexthopDiscoveryDhcpFamilyTest : public NexthopDiscoveryDhcpTest,
                                       public testing::WithParamInterface<FamilyLease> {};

}  // namespace

TEST_P(NexthopDiscoveryDhcpFamilyTest, RouterOfTheLease) {
  const auto [ipv6, text, router] = GetParam();
  LBInterface& interface = add_interface_via(config_, "wan1", "dhcp", ipv6);
  LBInterface& other_family = add_interface_via(config_, "wan1", "dhcp", !ipv6);
  write_lease("wan1", text, ipv6);
  resolve(ipv6);
  EXPECT_EQ(found(interface), router);
  EXPECT_EQ(found(other_family), "");
  EXPECT_THAT(log_records(), IsEmpty());
}

INSTANTIATE_TEST_SUITE_P(Families, NexthopDiscoveryDhcpFamilyTest,
                         testing::Values(FamilyLease{false, "  option routers 192.0.2.1;\n",
                                                     "192.0.2.1"},
                                         FamilyLease{true, "new_routers='fe80::1'\n", "fe80::1"}),
                         [](const auto& test) { return test.param.ipv6 ? "Ipv6" : "Ipv4"; });

TEST_F(NexthopDiscoveryDhcpTest, FileIsNamedAfterTheKeyAndTheWarningAfterTheOrigin) {
  LBInterface& interface = add_interface_via(config_, "wan1", "dhcp");
  interface.origin = "wan1-linux";
  lease("wan1-linux", "192.0.2.66");
  resolve();
  EXPECT_THAT(log_records(), ElementsAre(LoggedWarning("Failed to get routers option from DHCP on "
                                                       "interface wan1-linux")));
  clear_log();
  lease("wan1", "192.0.2.1");
  resolve();
  EXPECT_EQ(found(interface), "192.0.2.1");
  EXPECT_THAT(log_records(), IsEmpty());
}

TEST_F(NexthopDiscoveryDhcpTest, WarningEveryTimeWhileThereIsNoLease) {
  LBInterface& interface = add_interface_via(config_, "wan1", "dhcp");
  resolve();
  resolve();
  const auto warning = LoggedWarning("Failed to get routers option from DHCP on interface wan1");
  EXPECT_THAT(log_records(), ElementsAre(warning, warning));
  EXPECT_EQ(found(interface), "");
}

TEST_F(NexthopDiscoveryDhcpTest, WarningOfAnInterfaceWithoutADeviceName) {
  add_interface_via(config_, "wan1", "dhcp").origin = "";
  resolve();
  EXPECT_THAT(log_records(), ElementsAre(LoggedWarning("Failed to get routers option from DHCP on "
                                                       "interface unknown interface")));
}

TEST_F(NexthopDiscoveryDhcpTest, WarningIsBehindItsFlag) {
  set_log_flag(2, false);
  add_interface_via(config_, "wan1", "dhcp");
  resolve();
  EXPECT_THAT(log_records(), IsEmpty());
}

TEST_F(NexthopDiscoveryDhcpTest, EarlierAddressSurvivesAMissingFileAndAFileWithoutRouter) {
  LBInterface& interface = add_interface_via(config_, "wan1", "dhcp");
  set_found(interface, "192.0.2.1");
  resolve();
  EXPECT_EQ(found(interface), "192.0.2.1");
  write_lease("wan1", "lease {\n}\n");
  resolve();
  EXPECT_EQ(found(interface), "192.0.2.1");
  EXPECT_THAT(log_records(), IsEmpty());
}

TEST_F(NexthopDiscoveryDhcpTest, RouterLineWithoutAddressTakesTheEarlierOneAway) {
  LBInterface& interface = add_interface_via(config_, "wan1", "dhcp");
  set_found(interface, "192.0.2.1");
  write_lease("wan1", "option routers ;\n");
  resolve();
  EXPECT_EQ(found(interface), "");
  EXPECT_EQ(log_records().size(), 1u);
}

TEST_F(NexthopDiscoveryDhcpTest, RenewedLeaseIsPickedUp) {
  LBInterface& interface = add_interface_via(config_, "wan1", "dhcp");
  lease("wan1", "192.0.2.1");
  resolve();
  lease("wan1", "192.0.2.254");
  resolve();
  EXPECT_EQ(found(interface), "192.0.2.254");
}

TEST_F(NexthopDiscoveryDhcpTest, OnlyTheExactWordIsDiscovered) {
  for (const char* nexthop : {"192.0.2.9", "DHCP", "dhcp6", "tunnel", ""}) {
    LBConfig config;
    LBInterface& interface = add_interface_via(config, "wan1", nexthop);
    lease("wan1", "192.0.2.1");
    resolve_dhcp_nexthops(config, worker_of(false));
    EXPECT_EQ(found(interface), "") << nexthop;
    EXPECT_EQ(interface.nexthop, nexthop);
  }
  EXPECT_THAT(log_records(), IsEmpty());
}

TEST_F(NexthopDiscoveryDhcpTest, ServesAllVrfsInNameOrder) {
  add_interface_via(config_, "wan2", "dhcp").vrf = "red";
  add_interface_via(config_, "wan1", "dhcp");
  LBInterface& third = add_interface_via(config_, "wan3", "dhcp");
  third.vrf = "red";
  lease("wan3", "192.0.2.3");
  resolve();
  EXPECT_EQ(found(third), "192.0.2.3");
  EXPECT_THAT(
      log_records(),
      ElementsAre(LoggedWarning("Failed to get routers option from DHCP on interface wan1"),
                  LoggedWarning("Failed to get routers option from DHCP on interface wan2")));
}

TEST_F(NexthopDiscoveryDhcpTest, NoLockIsHeldOverTheFile) {
  LBInterface& interface = add_interface_via(config_, "wan1", "dhcp");
  lease("wan1", "192.0.2.1");
  bool was_free = false;
  CallHook hook(wrapped::open, [&](const char* path, int flags, mode_t mode) {
    if (interface.mutex.try_lock()) {
      was_free = true;
      interface.mutex.unlock();
    }
    return wrapped::open.real(path, flags, mode);
  });
  resolve();
  EXPECT_TRUE(was_free);
  EXPECT_EQ(found(interface), "192.0.2.1");
}
