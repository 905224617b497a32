#include "platform/places.h"

#include <gtest/gtest.h>

constexpr bool kIpv4 = false;
constexpr bool kIpv6 = true;

TEST(PlacesTest, RouteFilesOfTheDevice) {
  EXPECT_EQ(route_file_path("default", kIpv4), "/usr/etc/routing-wlb.conf");
  EXPECT_EQ(route_file_path("default", kIpv6), "/usr/etc/routing-wlb6.conf");
}

TEST(PlacesTest, RouteFilesOfAVrf) {
  EXPECT_EQ(route_file_path("red", kIpv4), "/var/vrfs/red/usr/etc/routing-wlb.conf");
  EXPECT_EQ(route_file_path("red", kIpv6), "/var/vrfs/red/usr/etc/routing-wlb6.conf");
}

// One daemon serves both families.
TEST(PlacesTest, PidFiles) {
  EXPECT_EQ(routing_pid_path("default"), "/var/run/routing.pid");
  EXPECT_EQ(routing_pid_path("red"), "/var/vrfs/red/usr/var/run/routing.pid");
}

TEST(PlacesTest, LeasesHaveASeparatorOnlyForIpv4) {
  EXPECT_EQ(lease_file_path("eth0", kIpv4), "/var/db/dhclient_eth0.leases");
  EXPECT_EQ(lease_file_path("eth0", kIpv6), "/var/db/dhcp6_clienteth0.leases");
}
