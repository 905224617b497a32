#include "packets/neighbor_discovery.h"

#include <arpa/inet.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <string>

#include "support/packet_bytes.h"

namespace {

std::string text_of(const in6_addr& address) {
  char text[INET6_ADDRSTRLEN];
  return inet_ntop(AF_INET6, &address, text, sizeof(text));
}

// RFC 1071 in another form than the product's: the ones'-complement sum of a correct packet,
// checksum included, is all ones. Carries are added at once, by byte pairs.
uint16_t ones_complement_sum(const Bytes& bytes) {
  uint16_t sum = 0;
  for (size_t i = 0; i < bytes.size(); i += 2) {
    const uint32_t wide = sum + bytes[i] * 256U + bytes[i + 1];
    sum = static_cast<uint16_t>(wide > 0xffff ? wide - 0xffff : wide);
  }
  return sum;
}

Bytes solicitation(const std::string& source, const std::string& target) {
  const MacAddress mac{0x02, 0x11, 0x22, 0x33, 0x44, 0x55};
  const in6_addr to = solicited_node_address(ipv6_address("ff02::1:ff00:2"), ipv6_address(target));
  return to_bytes(make_solicitation(mac, ipv6_address(source), to, ipv6_address(target)));
}

}  // namespace

TEST(NeighborDiscoveryTest, SolicitationHasEveryField) {
  const Bytes expected{
      0x33, 0x33, 0xff, 0x02, 0x00, 0x03,              // Ethernet destination: by the target
      0x02, 0x11, 0x22, 0x33, 0x44, 0x55,              // Ethernet source
      0x86, 0xdd,                                      // EtherType: IPv6
      0x60, 0x00, 0x00, 0x00,                          // version, traffic class, flow label
      0x00, 0x20,                                      // payload length 32
      0x3a,                                            // next header: ICMPv6
      0xff,                                            // hop limit
      0x20, 0x01, 0x0d, 0xb8, 0,    0,    0,    0,     // source 2001:db8::9
      0,    0,    0,    0,    0,    0,    0,    9,     //
      0xff, 0x02, 0,    0,    0,    0,    0,    0,     // destination ff02::1:ff02:3
      0,    0,    0,    1,    0xff, 0x02, 0x00, 0x03,  //
      0x87,                                            // type: neighbour solicitation
      0x00,                                            // code
      0xb1, 0x97,                                      // checksum
      0x03, 0xe8,                                      // 1000 in the reserved word
      0x00, 0x00,                                      //
      0x20, 0x01, 0x0d, 0xb8, 0,    0,    0,    0,     // target 2001:db8::1:2:3
      0,    0,    0,    1,    0,    2,    0,    3,     //
      0x01,                                            // option: source link-layer address
      0x01,                                            // option length: 8 bytes
      0x02, 0x11, 0x22, 0x33, 0x44, 0x55,              // link-layer address
  };
  EXPECT_EQ(solicitation("2001:db8::9", "2001:db8::1:2:3"), expected);
}

TEST(NeighborDiscoveryTest, SolicitedNodeAddressTakesTheLowBytesOfTheTarget) {
  const in6_addr prefix = ipv6_address("ff02::1:ff00:2");
  EXPECT_EQ(text_of(solicited_node_address(prefix, ipv6_address("2001:db8::1:2:3"))),
            "ff02::1:ff02:3");
  EXPECT_EQ(text_of(solicited_node_address(prefix, ipv6_address("fe80::aabb:ccdd"))),
            "ff02::1:ffbb:ccdd");
}

TEST(NeighborDiscoveryTest, ChecksumCoversThePseudoHeader) {
  for (const char* target : {"2001:db8::1:2:3", "fe80::1", "2001:db8:ffff:ffff::ffff:ffff"}) {
    const Bytes frame = solicitation("2001:db8::9", target);
    Bytes summed(frame.begin() + 22, frame.begin() + 54);          // source and destination
    summed.insert(summed.end(), {0, 0, 0, 32, 0, 0, 0, 58});       // length, zeros, next header
    summed.insert(summed.end(), frame.begin() + 54, frame.end());  // the message
    EXPECT_EQ(ones_complement_sum(summed), 0xffff) << target;
  }
}

TEST(NeighborDiscoveryTest, ReadsAdvertisement) {
  const auto advertisement = parse_neighbor_advertisement(advertisement_frame());
  ASSERT_TRUE(advertisement);
  EXPECT_EQ(text_of(advertisement->target), "2001:db8::1:2:3");
  EXPECT_EQ(advertisement->mac, (MacAddress{0x06, 0xaa, 0xbb, 0xcc, 0xdd, 0xef}));
}

TEST(NeighborDiscoveryTest, ReadsAdvertisementWithMoreOptions) {
  Bytes frame = advertisement_frame();
  frame.resize(frame.size() + 24, 0xee);
  EXPECT_TRUE(parse_neighbor_advertisement(frame));
}

TEST(NeighborDiscoveryTest, IgnoresSolicitation) {
  EXPECT_FALSE(parse_neighbor_advertisement(solicitation("2001:db8::9", "2001:db8::1:2:3")));
}

TEST(NeighborDiscoveryTest, IgnoresTruncatedAdvertisement) {
  const Bytes frame = advertisement_frame();
  ASSERT_EQ(frame.size(), 86u);
  for_each_truncation(frame,
                      [](const Bytes& cut) { EXPECT_FALSE(parse_neighbor_advertisement(cut)); });
}

TEST(NeighborDiscoveryTest, IgnoresAdvertisementOfAnotherProtocol) {
  for (const uint8_t next_header : {0, 1, 6, 17, 43, 44, 59, 60, 255}) {
    Bytes frame = advertisement_frame();
    frame[20] = next_header;
    EXPECT_FALSE(parse_neighbor_advertisement(frame)) << int{next_header};
  }
}

TEST(NeighborDiscoveryTest, IgnoresAdvertisementFromAfar) {
  for (const uint8_t hop_limit : {0, 1, 64, 254}) {
    Bytes frame = advertisement_frame();
    frame[21] = hop_limit;
    EXPECT_FALSE(parse_neighbor_advertisement(frame)) << int{hop_limit};
  }
}

TEST(NeighborDiscoveryTest, IgnoresAdvertisementWithAnotherOption) {
  for (const uint8_t type : {0, 1, 3, 5, 14, 255}) {
    Bytes frame = advertisement_frame();
    frame[78] = type;
    EXPECT_FALSE(parse_neighbor_advertisement(frame)) << int{type};
  }
  for (const uint8_t length : {0, 2, 3, 255}) {
    Bytes frame = advertisement_frame();
    frame[79] = length;
    frame.resize(1500);
    EXPECT_FALSE(parse_neighbor_advertisement(frame)) << int{length};
  }
}

TEST(NeighborDiscoveryTest, IgnoresAdvertisementOfAGroupOrNobody) {
  const auto reads = [](const MacAddress& mac) {
    Bytes frame = advertisement_frame();
    std::copy(mac.begin(), mac.end(), frame.begin() + 80);
    return parse_neighbor_advertisement(frame).has_value();
  };
  EXPECT_FALSE(reads({}));
  EXPECT_FALSE(reads({0xff, 0xff, 0xff, 0xff, 0xff, 0xff}));
  EXPECT_FALSE(reads({0x33, 0x33, 0x00, 0x00, 0x00, 0x01}));
  EXPECT_FALSE(reads({0x01, 0x00, 0x00, 0x00, 0x00, 0x00}));
  EXPECT_TRUE(reads({0x00, 0x00, 0x00, 0x00, 0x00, 0x01}));
  EXPECT_TRUE(reads({0xfe, 0xff, 0xff, 0xff, 0xff, 0xff}));
}

TEST(NeighborDiscoveryTest, EveryBitCounts) {
  const Bytes frame = advertisement_frame();
  const auto good = parse_neighbor_advertisement(frame);
  ASSERT_TRUE(good);
  for_each_flipped_bit(frame, [&](const Bytes& flipped, size_t bit) {
    const size_t i = bit / 8;
    const auto read = parse_neighbor_advertisement(flipped);
    const bool makes_a_group = bit == 80 * 8;
    const bool decides =
        i == 12 || i == 13 || i == 20 || i == 21 || i == 54 || i == 78 || i == 79 || makes_a_group;
    EXPECT_EQ(read.has_value(), !decides);
    if (!read) return;
    EXPECT_EQ(text_of(read->target) != text_of(good->target), i >= 62 && i < 78);
    EXPECT_EQ(read->mac != good->mac, i >= 80);
  });
}
