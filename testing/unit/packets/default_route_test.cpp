// Which of the kernel's routes are default routes that somebody else put there.
#include "packets/default_route.h"

#include <gmock/gmock.h>
#include <linux/icmpv6.h>

#include "support/dump_messages.h"

using testing::ElementsAre;
using testing::ElementsAreArray;
using testing::FieldsAre;
using testing::IsEmpty;

namespace {

std::vector<DefaultRoute> read(const Bytes& bytes, const Family& family) {
  std::vector<DefaultRoute> routes;
  std::span<const uint8_t> rest = bytes;
  while (const auto message = take_message(rest)) append_default_routes(*message, family, routes);
  return routes;
}

// One next hop of RTA_MULTIPATH; an empty gateway: without one.
Bytes nexthop(uint32_t ifindex, const std::string& gateway) {
  Bytes attributes = netlink_message(0, 16);
  if (!gateway.empty()) add_attribute(attributes, RTA_GATEWAY, gateway_bytes(gateway));
  Bytes bytes(8);
  set(bytes, 0, static_cast<uint16_t>(attributes.size() - 16 + 8));
  set(bytes, 4, ifindex);
  append(bytes, Bytes(attributes.begin() + 16, attributes.end()));
  return bytes;
}

}  // namespace

TEST(DefaultRouteTest, Request) {
  const Bytes expected{
      28,  0, 0, 0,  // length
      26,  0,        // RTM_GETROUTE
      1,   3,        // request, dump
      0,   0, 0, 0,  // sequence
      0,   0, 0, 0,  // port
      10,  0, 0, 0,  // IPv6, prefix lengths and type of service 0
      254, 0, 0, 1,  // main table, any protocol and scope, unicast
      0,   0, 0, 0,
  };
  const auto request = make_default_route_request(kIpv6);
  if constexpr (std::endian::native == std::endian::little) {
    EXPECT_THAT(to_bytes(request), ElementsAreArray(expected));
  }
  EXPECT_EQ(request.header.nlmsg_len, 28u);
  EXPECT_EQ(request.header.nlmsg_flags, NLM_F_REQUEST | NLM_F_DUMP);
  EXPECT_EQ(make_default_route_request(kIpv4).route.rtm_family, AF_INET);
}

TEST(DefaultRouteTest, NextHopOfBothFamilies) {
  EXPECT_THAT(read(default_route("192.0.2.1", 7, 100), kIpv4),
              ElementsAre(FieldsAre(7u, "192.0.2.1", 100u, 0)));
  EXPECT_THAT(read(default_route("fe80::1", 8, 1024), kIpv6),
              ElementsAre(FieldsAre(8u, "fe80::1", 1024u, 0)));
  EXPECT_THAT(read(default_route("fe80::1", 8), kIpv4), IsEmpty());
  EXPECT_THAT(read(default_route("192.0.2.1", 7), kIpv6), IsEmpty());
}

TEST(DefaultRouteTest, WithoutMetricItIsZero) {
  EXPECT_THAT(read(default_route("192.0.2.1", 7), kIpv4),
              ElementsAre(FieldsAre(7u, "192.0.2.1", 0u, 0)));
}

TEST(DefaultRouteTest, OthersAreLeftOut) {
  const Bytes good = default_route("192.0.2.1", 7);
  ASSERT_EQ(read(good, kIpv4).size(), 1u);
  const auto with = [&](size_t offset, uint8_t value) {
    Bytes bytes = good;
    bytes[offset] = value;
    return read(bytes, kIpv4);
  };
  EXPECT_THAT(with(4, RTM_DELROUTE), IsEmpty());
  EXPECT_THAT(with(17, 1), IsEmpty()) << "not everywhere";
  EXPECT_THAT(with(17, 32), IsEmpty());
  EXPECT_THAT(with(21, RTPROT_BIRD), IsEmpty()) << "ours";
  EXPECT_THAT(with(23, RTN_UNREACHABLE), IsEmpty());
  EXPECT_THAT(with(23, RTN_LOCAL), IsEmpty());
  for (const uint8_t protocol : {RTPROT_KERNEL, RTPROT_BOOT, RTPROT_STATIC, RTPROT_RA}) {
    EXPECT_EQ(with(21, protocol).size(), 1u) << int{protocol};
  }
  Bytes cloned = good;
  set(cloned, 24, uint32_t{RTM_F_CLONED});
  EXPECT_THAT(read(cloned, kIpv4), IsEmpty());
}

TEST(DefaultRouteTest, TableOfTheAttributeCounts) {
  Bytes bytes = default_route("192.0.2.1", 7);
  bytes[20] = RT_TABLE_COMPAT;
  EXPECT_EQ(read(bytes, kIpv4).size(), 1u);
  set(bytes, 32, uint32_t{1000});
  EXPECT_THAT(read(bytes, kIpv4), IsEmpty());
  bytes[20] = RT_TABLE_MAIN;
  EXPECT_THAT(read(bytes, kIpv4), IsEmpty());
  Bytes local = bare_route(false);  // of an old kernel, without the attribute
  add_attribute(local, RTA_GATEWAY, gateway_bytes("192.0.2.1"));
  add_attribute(local, RTA_OIF, number_bytes(7));
  EXPECT_EQ(read(local, kIpv4).size(), 1u);
  local[20] = RT_TABLE_LOCAL;
  EXPECT_THAT(read(local, kIpv4), IsEmpty());
}

TEST(DefaultRouteTest, NoGatewayIsNoNextHop) {
  Bytes on_link = bare_route(false);
  add_attribute(on_link, RTA_OIF, number_bytes(7));
  EXPECT_THAT(read(on_link, kIpv4), IsEmpty());
  EXPECT_THAT(read(default_route("0.0.0.0", 7), kIpv4), IsEmpty());
  EXPECT_THAT(read(default_route("192.0.2.1", 0), kIpv4), IsEmpty()) << "no interface";
  for (const size_t size : {0, 3, 5, 16}) {
    Bytes bytes = on_link;
    add_attribute(bytes, RTA_GATEWAY, Bytes(size, 1));
    EXPECT_THAT(read(bytes, kIpv4), IsEmpty()) << size;
  }
}

TEST(DefaultRouteTest, ShortNumbersAreNone) {
  Bytes bytes = default_route("192.0.2.1", 7);
  add_attribute(bytes, RTA_PRIORITY, Bytes{1, 2, 3});
  add_attribute(bytes, RTA_OIF, Bytes{1});
  add_attribute(bytes, RTA_PREF, Bytes{});
  EXPECT_THAT(read(bytes, kIpv4), ElementsAre(FieldsAre(7u, "192.0.2.1", 0u, 0)));
}

TEST(DefaultRouteTest, PreferenceOfTheAdvertisement) {
  const std::vector<std::pair<uint8_t, int>> expected{{ICMPV6_ROUTER_PREF_HIGH, 1},
                                                      {ICMPV6_ROUTER_PREF_MEDIUM, 0},
                                                      {ICMPV6_ROUTER_PREF_LOW, -1},
                                                      {ICMPV6_ROUTER_PREF_INVALID, 0}};
  for (const auto& [advertised, preference] : expected) {
    Bytes bytes = default_route("fe80::1", 7);
    add_attribute(bytes, RTA_PREF, Bytes{advertised});
    EXPECT_THAT(read(bytes, kIpv6), ElementsAre(FieldsAre(7u, "fe80::1", 0u, preference)));
  }
}

TEST(DefaultRouteTest, NextHopsOfAMultipathRoute) {
  Bytes bytes = bare_route(false);
  add_attribute(bytes, RTA_PRIORITY, number_bytes(5));
  Bytes nexthops = nexthop(7, "192.0.2.1");
  append(nexthops, nexthop(8, ""));
  append(nexthops, nexthop(9, "192.0.2.9"));
  add_attribute(bytes, RTA_MULTIPATH, nexthops);
  EXPECT_THAT(read(bytes, kIpv4),
              ElementsAre(FieldsAre(7u, "192.0.2.1", 5u, 0), FieldsAre(9u, "192.0.2.9", 5u, 0)));
}

TEST(DefaultRouteTest, MultipathLengthThatCannotBeRightEndsTheWalk) {
  for (const uint16_t length : {0, 7, 200}) {
    Bytes nexthops = nexthop(7, "192.0.2.1");
    Bytes wrong = nexthop(8, "192.0.2.2");
    set(wrong, 0, length);
    append(nexthops, wrong);
    Bytes bytes = bare_route(false);
    add_attribute(bytes, RTA_MULTIPATH, nexthops);
    EXPECT_EQ(read(bytes, kIpv4).size(), 1u) << length;
  }
}

TEST(DefaultRouteTest, TruncationsAndFlippedBitsDoNoHarm) {
  Bytes bytes = bare_route(true);
  add_attribute(bytes, RTA_MULTIPATH, nexthop(7, "fe80::1"));
  for_each_truncation(bytes, [](Bytes cut) {
    if (cut.size() >= 16) set(cut, 0, static_cast<uint32_t>(cut.size()));
    EXPECT_THAT(read(cut, kIpv6), IsEmpty());
  });
  for_each_flipped_bit(bytes, [](const Bytes& flipped, size_t) { read(flipped, kIpv6); });
}
