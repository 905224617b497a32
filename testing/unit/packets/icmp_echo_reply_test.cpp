// The reading of echo replies: whole, cut short, damaged, random.
#include <gtest/gtest.h>

#include <algorithm>
#include <random>

#include "packets/icmp_echo.h"
#include "support/packet_bytes.h"

namespace {

Bytes operator+(Bytes a, const Bytes& b) {
  append(a, b);
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
  for_each_truncation(kIpHeader + kReply,
                      [](const Bytes& cut) { EXPECT_EQ(echo_reply_key(cut), std::nullopt); });
  for_each_truncation(reply6(),
                      [](const Bytes& cut) { EXPECT_EQ(echo6_reply_key(cut), std::nullopt); });
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
  for_each_flipped_bit(kIpHeader + kReply, [](const Bytes& flipped, size_t bit) {
    const auto key = echo_reply_key(flipped);
    if (bit / 8 == 20) {
      EXPECT_EQ(key, std::nullopt);
    } else if (bit / 8 >= 28) {
      ASSERT_TRUE(key.has_value());
      EXPECT_EQ(*key ^ 0x5002u, 1u << (8 * (31 - bit / 8) + bit % 8));
    } else {
      EXPECT_EQ(key, 0x5002u);
    }
  });
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

TEST(IcmpEchoReplyBurstTest, SequenceAndKeyDecide) {
  const Bytes packet = kIpHeader + kReply;
  EXPECT_TRUE(is_burst_reply(packet, 1, 0x5002));
  EXPECT_FALSE(is_burst_reply(packet, 0, 0x5002));
  EXPECT_FALSE(is_burst_reply(packet, 2, 0x5002));
  EXPECT_FALSE(is_burst_reply(packet, 1, 0x5003));
}

TEST(IcmpEchoReplyBurstTest, TypeIsNotLookedAt) {
  for (int type = 0; type < 256; ++type) {
    Bytes message = kReply;
    message[0] = static_cast<uint8_t>(type);
    EXPECT_TRUE(is_burst_reply(kIpHeader + message, 1, 0x5002)) << type;
  }
}

TEST(IcmpEchoReplyBurstTest, CutShortAnywhereIsNoReply) {
  for_each_truncation(kIpHeader + kReply,
                      [](const Bytes& cut) { EXPECT_FALSE(is_burst_reply(cut, 1, 0x5002)); });
}

TEST(IcmpEchoReplyBurstTest, FlippedBits) {
  for_each_flipped_bit(kIpHeader + kReply, [](const Bytes& flipped, size_t bit) {
    EXPECT_EQ(is_burst_reply(flipped, 1, 0x5002), bit / 8 < 26);
  });
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
