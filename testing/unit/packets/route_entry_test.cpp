// Routes as the kernel tells them: what the readers of default routes and of whole tables share.
#include "packets/route_entry.h"

#include <gmock/gmock.h>

#include "support/dump_messages.h"

using testing::ElementsAre;
using testing::FieldsAre;

namespace {

std::optional<RouteEntry> read(const Bytes& bytes, const Family& family) {
  std::span<const uint8_t> rest = bytes;
  const auto message = take_message(rest);
  return message ? read_route_entry(*message, family) : std::nullopt;
}

}  // namespace

TEST(RouteEntryTest, Prefix) {
  Bytes bytes = bare_route(true);
  bytes[17] = 48;
  add_attribute(bytes, RTA_DST, gateway_bytes("2001:db8:1::"));
  add_attribute(bytes, RTA_PRIORITY, number_bytes(20));
  add_attribute(bytes, RTA_OIF, number_bytes(7));
  const auto route = read(bytes, kIpv6);
  ASSERT_TRUE(route);
  EXPECT_EQ(route->destination, "2001:db8:1::");
  EXPECT_EQ(route->prefix_length, 48);
  EXPECT_EQ(route->protocol, RTPROT_DHCP);
  EXPECT_EQ(route->metric, 20U);
  EXPECT_THAT(route->nexthops, ElementsAre(FieldsAre(7U, "", "", 1U, false)));
}

TEST(RouteEntryTest, DeadLinkIsTold) {
  Bytes bytes = default_route("192.0.2.1", 7);
  bytes[24] = RTNH_F_DEAD;
  const auto route = read(bytes, kIpv4);
  ASSERT_TRUE(route);
  EXPECT_THAT(route->nexthops, ElementsAre(FieldsAre(7U, "192.0.2.1", "", 1U, true)));
}

TEST(RouteEntryTest, GatewayOfTheOtherFamily) {
  Bytes via(2);
  set(via, 0, uint16_t{AF_INET6});
  const Bytes address = address_bytes("fe80::1");
  via.insert(via.end(), address.begin(), address.end());
  Bytes bytes = bare_route(false);
  add_attribute(bytes, RTA_VIA, via);
  add_attribute(bytes, RTA_OIF, number_bytes(7));
  const auto route = read(bytes, kIpv4);
  ASSERT_TRUE(route);
  EXPECT_EQ(route->destination, "0.0.0.0");
  EXPECT_THAT(route->nexthops, ElementsAre(FieldsAre(7U, "", "fe80::1", 1U, false)));
}

TEST(RouteEntryTest, DestinationThatIsTooLongIsNoRoute) {
  Bytes bytes = bare_route(false);
  bytes[17] = 24;
  add_attribute(bytes, RTA_OIF, number_bytes(7));
  ASSERT_TRUE(read(bytes, kIpv4));
  add_attribute(bytes, RTA_DST, address_bytes("2001:db8:1::"));
  EXPECT_FALSE(read(bytes, kIpv4));
}

TEST(RouteEntryTest, RememberedRouteIsNone) {
  Bytes bytes = default_route("192.0.2.1", 7);
  bytes[25] = RTM_F_CLONED >> 8;
  EXPECT_FALSE(read(bytes, kIpv4));
}
