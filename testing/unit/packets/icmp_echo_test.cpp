// Echo requests byte for byte, and the reading of replies: whole, cut short, damaged, random.
#include <arpa/inet.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <random>
#include <set>
#include <vector>

#include "packets/icmp_echo.h"
#include "packets/packet_reader.h"

namespace {

using Bytes = std::vector<uint8_t>;
using testing::ElementsAreArray;

template <class Record>
Bytes to_bytes(const Record& record) {
  const auto bytes = bytes_of(record);
  return {bytes.begin(), bytes.end()};
}

Bytes operator+(Bytes a, const Bytes& b) {
  a.insert(a.end(), b.begin(), b.end());
  return a;
}

const Bytes kIpHeader{
    0x45, 0x00, 0x00, 0x20,  // version 4, 5 words, total length 32
    0x00, 0x00, 0x00, 0x00,  // identification, flags, offset
    0x40, 0x01, 0x00, 0x00,  // time to live 64, ICMP, checksum
    0xc0, 0x00, 0x02, 0x01,  // source 192.0.2.1
    0xc0, 0x00, 0x02, 0x02,  // destination 192.0.2.2
};

const Bytes kReply{
    0x00, 0x00,              // echo reply, code 0
    0x9d, 0xc8,              // checksum
    0x12, 0x34,              // identifier
    0x00, 0x01,              // sequence
    0x00, 0x00, 0x50, 0x02,  // probe key 20482
};

Bytes reply6() {
  Bytes reply = kReply;
  reply[0] = 129;
  return reply;
}

}  // namespace

TEST(IcmpEchoRawTest, Bytes) {
  EXPECT_THAT(to_bytes(make_raw_echo(0x1234, 1, 0x00005002)),
              ElementsAreArray(Bytes{
                  0x08,                    // type: echo request
                  0x00,                    // code
                  0x95, 0xc8,              // checksum: ~(0800 + 1234 + 0001 + 5002)
                  0x12, 0x34,              // identifier
                  0x00, 0x01,              // sequence
                  0x00, 0x00, 0x50, 0x02,  // probe key
                  0,    0,    0,    0,    0, 0, 0, 0, 0, 0, 0, 0,
              }));
}

TEST(IcmpEchoRawTest, SequenceIsSummedToo) {
  EXPECT_THAT(to_bytes(make_raw_echo(0xffff, 9, 32766)),
              ElementsAreArray(Bytes{
                  0x08, 0x00,              // echo request
                  0x77, 0xf8,              // checksum: ~(0800 + ffff + 0009 + 7ffe)
                  0xff, 0xff,              // identifier
                  0x00, 0x09,              // sequence
                  0x00, 0x00, 0x7f, 0xfe,  // the largest probe key
                  0,    0,    0,    0,    0, 0, 0, 0, 0, 0, 0, 0,
              }));
}

TEST(IcmpEchoRaw6Test, Bytes) {
  EXPECT_THAT(to_bytes(make_raw_echo6(0x1234, 0x65536500, 0x000f423f, 0x00005002)),
              ElementsAreArray(Bytes{
                  0x80,                    // type: echo request
                  0x00,                    // code
                  0x11, 0x26,              // checksum of bytes 0 to 19
                  0x12, 0x34,              // identifier
                  0x00, 0x01,              // sequence
                  0x65, 0x53, 0x65, 0x00,  // seconds
                  0x00, 0x0f, 0x42, 0x3f,  // microseconds
                  0x00, 0x00, 0x50, 0x02,  // probe key
                  0,    0,    0,    0,    0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0,
              }));
}

TEST(IcmpEchoFrameTest, Bytes) {
  FrameAddresses<in_addr> addresses;
  addresses.destination_mac = {0x02, 0x11, 0x22, 0x33, 0x44, 0x55};
  addresses.source_mac = {0x02, 0xaa, 0xbb, 0xcc, 0xdd, 0xee};
  inet_pton(AF_INET, "192.0.2.1", &addresses.source);
  inet_pton(AF_INET, "198.51.100.7", &addresses.destination);
  EXPECT_THAT(to_bytes(make_echo_frame(addresses, 0x1234, 0, 0x00005002)),
              ElementsAreArray(Bytes{
                  0x02, 0x11, 0x22, 0x33, 0x44, 0x55,  // destination
                  0x02, 0xaa, 0xbb, 0xcc, 0xdd, 0xee,  // source
                  0x08, 0x00,                          // type: IPv4
                  0x45,                                // version 4, 5 words
                  0x00,                                // type of service
                  0x00, 0x20,                          // total length 32
                  0x00, 0x00,                          // identification
                  0x00, 0x00,                          // flags, fragment offset
                  0xff,                                // time to live 255
                  0x01,                                // protocol ICMP
                  0xcf, 0xa0,              // checksum: ~(4500+20+ff01+c000+201+c633+6407)
                  0xc0, 0x00, 0x02, 0x01,  // source
                  0xc6, 0x33, 0x64, 0x07,  // destination
                  0x08, 0x00,              // echo request, code 0
                  0x95, 0xc9,              // checksum: ~(0800 + 1234 + 5002)
                  0x12, 0x34,              // identifier
                  0x00, 0x00,              // sequence
                  0x00, 0x00, 0x50, 0x02,  // probe key
              }));
}

TEST(IcmpEchoFrame6Test, Bytes) {
  FrameAddresses<in6_addr> addresses;
  addresses.destination_mac = {0x02, 0x11, 0x22, 0x33, 0x44, 0x55};
  addresses.source_mac = {0x02, 0xaa, 0xbb, 0xcc, 0xdd, 0xee};
  inet_pton(AF_INET6, "2001:db8::1", &addresses.source);
  inet_pton(AF_INET6, "2001:db8:7::ff02", &addresses.destination);
  EXPECT_THAT(
      to_bytes(make_echo_frame(addresses, 0x1234, 0, 0x00005002)),
      ElementsAreArray(Bytes{
          0x02, 0x11, 0x22, 0x33, 0x44, 0x55,  // destination
          0x02, 0xaa, 0xbb, 0xcc, 0xdd, 0xee,  // source
          0x86, 0xdd,                          // type: IPv6
          0x60, 0x00, 0x00, 0x00,              // version 6, class 0, flow label 0
          0x00, 0x0c,                          // payload length 12
          0x3a,                                // next header ICMPv6
          0xff,                                // hop limit 255
          0x20, 0x01, 0x0d, 0xb8, 0,    0,    0, 0, 0, 0, 0, 0, 0, 0, 0,    0x01,  // source
          0x20, 0x01, 0x0d, 0xb8, 0,    0x07, 0, 0, 0, 0, 0, 0, 0, 0, 0xff, 0x02,  // destination
          0x80, 0x00,              // echo request, code 0
          0xc3, 0x05,              // checksum over the pseudo-header too
          0x12, 0x34,              // identifier
          0x00, 0x00,              // sequence
          0x00, 0x00, 0x50, 0x02,  // probe key
      }));
}

TEST(IcmpEchoReplyTest, KeyOfAWholeReply) {
  EXPECT_EQ(echo_reply_key(kIpHeader + kReply), 0x5002u);
  EXPECT_EQ(echo6_reply_key(reply6()), 0x5002u);
}

TEST(IcmpEchoReplyTest, BytesBehindTheKeyAreNotLookedAt) {
  const Bytes tail(1400, 0xa5);
  EXPECT_EQ(echo_reply_key(kIpHeader + kReply + tail), 0x5002u);
  EXPECT_EQ(echo6_reply_key(reply6() + tail), 0x5002u);
}

TEST(IcmpEchoReplyTest, CutShortAnywhereIsNoReply) {
  const Bytes whole = kIpHeader + kReply;
  for (size_t length = 0; length < whole.size(); ++length) {
    const Bytes cut(whole.begin(), whole.begin() + static_cast<long>(length));
    EXPECT_EQ(echo_reply_key(cut), std::nullopt) << length;
  }
  const Bytes whole6 = reply6();
  for (size_t length = 0; length < whole6.size(); ++length) {
    const Bytes cut(whole6.begin(), whole6.begin() + static_cast<long>(length));
    EXPECT_EQ(echo6_reply_key(cut), std::nullopt) << length;
  }
}

TEST(IcmpEchoReplyTest, OnlyTheTypeOfAReplyCounts) {
  for (int type = 0; type < 256; ++type) {
    Bytes message = kReply;
    message[0] = static_cast<uint8_t>(type);
    EXPECT_EQ(echo_reply_key(kIpHeader + message).has_value(), type == 0) << type;
    EXPECT_EQ(echo6_reply_key(message).has_value(), type == 129) << type;
  }
}

// Type and key decide, and nothing else of the packet: each bit is flipped in turn.
TEST(IcmpEchoReplyTest, FlippedBits) {
  const Bytes whole = kIpHeader + kReply;
  for (size_t bit = 0; bit < whole.size() * 8; ++bit) {
    Bytes flipped = whole;
    flipped[bit / 8] ^= static_cast<uint8_t>(1u << bit % 8);
    const auto key = echo_reply_key(flipped);
    if (bit / 8 == 20) {
      EXPECT_EQ(key, std::nullopt) << bit;
    } else if (bit / 8 >= 28) {
      ASSERT_TRUE(key.has_value()) << bit;
      EXPECT_EQ(*key ^ 0x5002u, 1u << (8 * (31 - bit / 8) + bit % 8)) << bit;
    } else {
      EXPECT_EQ(key, 0x5002u) << bit;
    }
  }
}

TEST(IcmpEchoReplyTest, KeyIsUnsignedInNetworkByteOrder) {
  Bytes reply = kReply;
  std::copy_n(Bytes{0xff, 0xfe, 0xfd, 0xfc}.begin(), 4, reply.begin() + 8);
  EXPECT_EQ(echo_reply_key(kIpHeader + reply), 0xfffefdfcu);
}

// The request of the raw IPv6 path has its time where the key of a reply is looked for.
TEST(IcmpEchoReplyTest, RawIpv6RequestComesBackWithItsSecondsAsKey) {
  Bytes echoed = to_bytes(make_raw_echo6(1, 1700000000, 5, 77));
  echoed[0] = 129;
  EXPECT_EQ(echo6_reply_key(echoed), 1700000000u);
}

TEST(IcmpEchoReplyTest, RawIpv4RequestComesBackWithItsKey) {
  Bytes echoed = to_bytes(make_raw_echo(1, 1, 77));
  echoed[0] = 0;
  EXPECT_EQ(echo_reply_key(kIpHeader + echoed), 77u);
}

TEST(IcmpEchoReplyTest, FramesComeBackWithTheirKeys) {
  Bytes echoed = to_bytes(make_echo_frame(FrameAddresses<in_addr>{}, 1, 0, 78));
  echoed.erase(echoed.begin(), echoed.begin() + 14);
  echoed[20] = 0;
  EXPECT_EQ(echo_reply_key(echoed), 78u);
  Bytes echoed6 = to_bytes(make_echo_frame(FrameAddresses<in6_addr>{}, 1, 0, 79));
  echoed6.erase(echoed6.begin(), echoed6.begin() + 14 + 40);
  echoed6[0] = 129;
  EXPECT_EQ(echo6_reply_key(echoed6), 79u);
}

TEST(IcmpEchoBurstReplyTest, SequenceAndKeyDecide) {
  const Bytes packet = kIpHeader + kReply;
  EXPECT_TRUE(is_burst_reply(packet, 1, 0x5002));
  EXPECT_FALSE(is_burst_reply(packet, 0, 0x5002));
  EXPECT_FALSE(is_burst_reply(packet, 2, 0x5002));
  EXPECT_FALSE(is_burst_reply(packet, 1, 0x5003));
}

TEST(IcmpEchoBurstReplyTest, TypeIsNotLookedAt) {
  for (int type = 0; type < 256; ++type) {
    Bytes message = kReply;
    message[0] = static_cast<uint8_t>(type);
    EXPECT_TRUE(is_burst_reply(kIpHeader + message, 1, 0x5002)) << type;
  }
}

TEST(IcmpEchoBurstReplyTest, CutShortAnywhereIsNoReply) {
  const Bytes whole = kIpHeader + kReply;
  for (size_t length = 0; length < whole.size(); ++length) {
    const Bytes cut(whole.begin(), whole.begin() + static_cast<long>(length));
    EXPECT_FALSE(is_burst_reply(cut, 1, 0x5002)) << length;
  }
}

TEST(IcmpEchoBurstReplyTest, FlippedBits) {
  const Bytes whole = kIpHeader + kReply;
  for (size_t bit = 0; bit < whole.size() * 8; ++bit) {
    Bytes flipped = whole;
    flipped[bit / 8] ^= static_cast<uint8_t>(1u << bit % 8);
    const size_t byte = bit / 8;
    EXPECT_EQ(is_burst_reply(flipped, 1, 0x5002), byte < 26) << bit;
  }
}

// Random bytes are read without a fault, whatever they are (the sanitizers watch), and a key that
// comes out of them is the word that stands there.
TEST(IcmpEchoReplyTest, RandomBytes) {
  std::mt19937 random(22);
  for (int round = 0; round < 20000; ++round) {
    Bytes bytes(random() % 64);
    for (uint8_t& byte : bytes) byte = static_cast<uint8_t>(random());
    const auto key = echo_reply_key(bytes);
    ASSERT_EQ(key.has_value(), bytes.size() >= 32 && bytes[20] == 0);
    if (key) {
      const uint32_t word =
          static_cast<uint32_t>(bytes[28]) << 24 | bytes[29] << 16 | bytes[30] << 8 | bytes[31];
      ASSERT_EQ(*key, word);
    }
    const auto key6 = echo6_reply_key(bytes);
    ASSERT_EQ(key6.has_value(), bytes.size() >= 12 && bytes[0] == 129);
    is_burst_reply(bytes, 0, 0);
  }
}
