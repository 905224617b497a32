// The kernel's main table, from literal messages of a dump.
#include "lbctl/kernel_table.h"

#include <gtest/gtest.h>

#include "lbctl/kernel_route_message.h"
#include "support/dump_answers.h"

namespace lbctl {
namespace {

std::string name_of(unsigned int index) { return index == 7 ? "eth0" : index == 8 ? "eth1" : ""; }

// The whole of one read.
std::vector<KernelRoute> routes_in(const Bytes& bytes, bool ipv6 = false) {
  std::vector<KernelRoute> routes;
  std::span<const uint8_t> rest(bytes);
  while (const auto message = take_message(rest))
    append_kernel_route(*message, family_of(ipv6), name_of, routes);
  return routes;
}

// "DESTINATION metric M proto P [ADDRESS%DEVICE*WEIGHT ...]"
std::string text_of(const KernelRoute& route) {
  std::string text = route.destination + " metric " + std::to_string(route.metric) + " proto " +
                     std::to_string(route.protocol);
  for (const auto& [address, device, weight] : route.nexthops)
    text += " " + address + "%" + device + "*" + std::to_string(weight);
  return text;
}

std::string only_route_in(const Bytes& bytes, bool ipv6 = false) {
  const auto routes = routes_in(bytes, ipv6);
  return routes.size() == 1 ? text_of(routes[0]) : std::to_string(routes.size()) + " routes";
}

// 203.0.113.0/24, whose attribute holds as many bytes as the prefix needs.
Bytes prefix_route() {
  Bytes bytes = bare_route(false);
  bytes[17] = 24;  // destination's length
  add_attribute(bytes, RTA_DST, gateway_bytes("203.0.113.0"));
  add_attribute(bytes, RTA_OIF, number_bytes(8));
  return bytes;
}

// A next hop of RTA_MULTIPATH.
Bytes hop(const std::string& gateway, uint32_t ifindex, int weight, uint8_t flags = 0) {
  Bytes bytes(8);
  bytes[2] = flags;
  bytes[3] = static_cast<uint8_t>(weight - 1);
  set(bytes, 4, ifindex);
  const Bytes address = gateway_bytes(gateway);
  const size_t start = bytes.size();
  bytes.resize(start + 4 + address.size());
  set(bytes, start, static_cast<uint16_t>(4 + address.size()));
  set(bytes, start + 2, uint16_t{RTA_GATEWAY});
  std::copy(address.begin(), address.end(), bytes.begin() + static_cast<ptrdiff_t>(start) + 4);
  set(bytes, 0, static_cast<uint16_t>(bytes.size()));
  return bytes;
}

Bytes multipath(std::initializer_list<Bytes> hops, bool ipv6 = false) {
  Bytes all;
  for (const Bytes& one : hops) all.insert(all.end(), one.begin(), one.end());
  Bytes bytes = bare_route(ipv6);
  bytes[21] = RTPROT_BIRD;
  add_attribute(bytes, RTA_MULTIPATH, all);
  return bytes;
}

TEST(KernelRouteMessageTest, DefaultRoutes) {
  EXPECT_EQ(only_route_in(default_route("192.0.2.1", 7, 32)),
            "0.0.0.0/0 metric 32 proto 16 192.0.2.1%eth0*1");
  EXPECT_EQ(only_route_in(default_route("fe80::1", 8, 1024), true),
            "::/0 metric 1024 proto 16 fe80::1%eth1*1");
}

TEST(KernelRouteMessageTest, PrefixOnADevice) {
  EXPECT_EQ(only_route_in(prefix_route()), "203.0.113.0/24 metric 0 proto 16 %eth1*1");
}

TEST(KernelRouteMessageTest, Multipath) {
  EXPECT_EQ(only_route_in(multipath({hop("192.0.2.1", 7, 1), hop("198.51.100.1", 8, 256)})),
            "0.0.0.0/0 metric 0 proto 12 192.0.2.1%eth0*1 198.51.100.1%eth1*256");
  EXPECT_EQ(only_route_in(multipath({hop("fe80::1", 7, 1), hop("fe80::1", 8, 2)}, true), true),
            "::/0 metric 0 proto 12 fe80::1%eth0*1 fe80::1%eth1*2");
}

TEST(KernelRouteMessageTest, DeadNextHopsAreLeftOut) {
  EXPECT_EQ(
      only_route_in(multipath({hop("192.0.2.1", 7, 1, RTNH_F_DEAD), hop("198.51.100.1", 8, 1)})),
      "0.0.0.0/0 metric 0 proto 12 198.51.100.1%eth1*1");
  Bytes bytes = default_route("192.0.2.1", 7);
  bytes[24] = RTNH_F_DEAD;
  EXPECT_EQ(only_route_in(bytes), "0.0.0.0/0 metric 0 proto 16");
}

TEST(KernelRouteMessageTest, Ipv4RouteByAnIpv6Gateway) {
  Bytes bytes = bare_route(false);
  Bytes via(2);
  set(via, 0, uint16_t{AF_INET6});
  const Bytes address = address_bytes("fe80::1");
  via.insert(via.end(), address.begin(), address.end());
  add_attribute(bytes, RTA_VIA, via);
  add_attribute(bytes, RTA_OIF, number_bytes(7));
  EXPECT_EQ(only_route_in(bytes), "0.0.0.0/0 metric 0 proto 16 fe80::1%eth0*1");
}

TEST(KernelRouteMessageTest, OtherRoutesDoNotCount) {
  const Bytes good = default_route("192.0.2.1", 7);
  EXPECT_EQ(routes_in(good).size(), 1U);
  EXPECT_EQ(routes_in(good, true).size(), 0U) << "family";
  for (const auto& [offset, value] : std::initializer_list<std::pair<size_t, uint8_t>>{
           {4, RTM_DELROUTE}, {17, 33}, {23, RTN_LOCAL}, {25, RTM_F_CLONED >> 8}}) {
    Bytes bytes = good;
    bytes[offset] = value;
    EXPECT_EQ(routes_in(bytes).size(), 0U) << offset;
  }
  Bytes other_table = good;
  add_attribute(other_table, RTA_TABLE, number_bytes(100));
  EXPECT_EQ(routes_in(other_table).size(), 0U);
}

TEST(KernelRouteMessageTest, CutMessagesAreReadNoFurther) {
  const Bytes whole = multipath({hop("192.0.2.1", 7, 1), hop("198.51.100.1", 8, 2)});
  for (size_t length = 16; length < whole.size(); ++length) {
    Bytes bytes(whole.begin(), whole.begin() + static_cast<ptrdiff_t>(length));
    set(bytes, 0, static_cast<uint32_t>(length));
    for (const KernelRoute& route : routes_in(bytes)) EXPECT_LE(route.nexthops.size(), 2U);
  }
}

// The route file may also be that of another daemon than BIRD.
TEST(KernelTableOriginTest, RoutingDaemonsAndOthers) {
  const auto route = [](uint8_t protocol) { return KernelRoute{"0.0.0.0/0", 0, protocol, {}}; };
  constexpr uint8_t kStaticRoutesOfFrr = 196;
  for (const uint8_t protocol :
       {uint8_t{RTPROT_BIRD}, uint8_t{RTPROT_ZEBRA}, uint8_t{RTPROT_BGP}, kStaticRoutesOfFrr}) {
    EXPECT_TRUE(is_routing_daemons(route(protocol))) << int{protocol};
  }
  const std::pair<uint8_t, const char*> others[] = {{RTPROT_KERNEL, "the kernel"},
                                                    {RTPROT_BOOT, "ip route"},
                                                    {RTPROT_STATIC, "a static configuration"},
                                                    {RTPROT_RA, "a router advertisement"},
                                                    {RTPROT_DHCP, "a DHCP client"},
                                                    {RTPROT_KEEPALIVED, "keepalived"},
                                                    {RTPROT_REDIRECT, "protocol 1"}};
  for (const auto& [protocol, origin] : others) {
    EXPECT_FALSE(is_routing_daemons(route(protocol))) << int{protocol};
    EXPECT_EQ(origin_of(route(protocol)), origin);
  }
}

class KernelTableTest : public testing::Test {
 protected:
  DumpAnswers kernel_;
};

TEST_F(KernelTableTest, TheMainTableIsAskedFor) {
  kernel_.reads = {default_route("192.0.2.1", 7), dump_end()};
  const auto table = read_kernel_routes("default", false);
  ASSERT_TRUE(table);
  EXPECT_EQ(table->size(), 1U);
  ASSERT_EQ(kernel_.requests.size(), 1U);
  EXPECT_EQ(kernel_.requests[0].second[16], AF_INET);
  EXPECT_EQ(kernel_.requests[0].second[20], RT_TABLE_MAIN);
}

TEST_F(KernelTableTest, NoTableYetIsAnEmptyOne) {
  kernel_.reads = {error_message(-ENOENT)};
  const auto table = read_kernel_routes("default", true);
  ASSERT_TRUE(table);
  EXPECT_TRUE(table->empty());
}

TEST_F(KernelTableTest, WhatMayNotBeReadIsNoTable) {
  kernel_.reads = {error_message(-EPERM)};
  EXPECT_FALSE(read_kernel_routes("default", false));
  EXPECT_FALSE(read_kernel_routes("default", false)) << "no answer";
  kernel_.requests.clear();
  EXPECT_FALSE(read_kernel_routes("no-such-vrf", false));
  EXPECT_FALSE(read_kernel_routes("", false));
  EXPECT_FALSE(read_kernel_routes("../../../proc/self/ns/net", false));
  EXPECT_TRUE(kernel_.requests.empty());
}

TEST(CanonicalDestinationTest, OneTextForEachDestination) {
  EXPECT_EQ(canonical_destination("default", false), "0.0.0.0/0");
  EXPECT_EQ(canonical_destination("default", true), "::/0");
  EXPECT_EQ(canonical_destination("192.0.2.77/24", false), "192.0.2.0/24");
  EXPECT_EQ(canonical_destination("192.0.2.77", false), "192.0.2.77/32");
  EXPECT_EQ(canonical_destination("2001:DB8:0::/32", true), "2001:db8::/32");
  EXPECT_EQ(canonical_destination("2001:db8::/32", false), "");
  EXPECT_EQ(canonical_destination("nonsense", false), "");
}

}  // namespace
}  // namespace lbctl
