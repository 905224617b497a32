// Echo replies as they come over the wire: whole, damaged, cut short, dressed up.
#include "packets/wire_reply.h"

#include <gtest/gtest.h>

#include <random>

#include "packets/icmp_echo.h"
#include "support/packet_bytes.h"
#include "support/sealed_packets.h"

namespace {

Bytes operator+(Bytes a, const Bytes& b) {
  append(a, b);
  return a;
}

Bytes bytes_in(std::span<const uint8_t> bytes) { return {bytes.begin(), bytes.end()}; }

const Bytes kHeader{
    0x45, 0x00, 0x00, 0x20,  // version 4, 5 words, total length 32
    0x00, 0x00, 0x00, 0x00,  // identification, flags, offset
    0x40, 0x01, 0x8e, 0xa1,  // time to live 64, ICMP, checksum
    0xc6, 0x33, 0x64, 0x07,  // source 198.51.100.7
    0xc0, 0x00, 0x02, 0x01,  // destination 192.0.2.1
};

const Bytes kMessage{
    0x00, 0x00,              // echo reply, code 0
    0x9d, 0xc8,              // checksum
    0x12, 0x34,              // identifier
    0x00, 0x01,              // sequence
    0x00, 0x00, 0x50, 0x02,  // probe key 20482
};

const Bytes kReply = kHeader + kMessage;

const Bytes kHeader6{
    0x60, 0x00, 0x00, 0x00,                                                  // version, class, flow
    0x00, 0x0c, 0x3a, 0x40,                                                  // length 12, ICMPv6
    0x20, 0x01, 0x0d, 0xb8, 0x00, 0x07, 0, 0, 0, 0, 0, 0, 0, 0, 0x00, 0x07,  // from 2001:db8:7::7
    0x20, 0x01, 0x0d, 0xb8, 0x00, 0x00, 0, 0, 0, 0, 0, 0, 0, 0, 0x00, 0x02,  // to 2001:db8::2
};

const Bytes kMessage6{
    0x81, 0x00,              // echo reply, code 0
    0xc0, 0xff,              // checksum
    0x12, 0x34,              // identifier
    0x00, 0x01,              // sequence
    0x00, 0x00, 0x50, 0x02,  // probe key 20482
};

const Bytes kReply6 = kHeader6 + kMessage6;

bool is_reply4(const Bytes& bytes) { return parse_wire_reply4(bytes).has_value(); }
bool is_reply6(const Bytes& bytes) { return parse_wire_reply6(bytes).has_value(); }

// The reply with one byte changed and right checksums.
Bytes changed(Bytes packet, size_t offset, uint8_t value) {
  packet[offset] = value;
  seal(packet);
  return packet;
}

}  // namespace

TEST(WireReplyTest, IsWhatARawSocketDelivers) {
  const auto reply = parse_wire_reply4(kReply);
  ASSERT_TRUE(reply);
  EXPECT_EQ(bytes_in(reply->packet), kReply);
  EXPECT_EQ(echo_reply_key(reply->packet), 0x5002u);
  EXPECT_EQ(reply->sender.s_addr, inet_addr("198.51.100.7"));
}

TEST(WireReply6Test, IsWhatARawSocketDelivers) {
  const auto reply = parse_wire_reply6(kReply6);
  ASSERT_TRUE(reply);
  EXPECT_EQ(bytes_in(reply->packet), kMessage6);
  EXPECT_EQ(echo6_reply_key(reply->packet), 0x5002u);
  const in6_addr sender = ipv6_address("2001:db8:7::7");
  EXPECT_EQ(std::memcmp(&reply->sender, &sender, sizeof(sender)), 0);
}

// An Ethernet frame carries 46 bytes at least, and its padding need not be zero.
TEST(WireReplyTest, PaddingIsCutOff) {
  for (const size_t padding : {1u, 14u, 1400u}) {
    const Bytes tail(padding, 0xa5);
    ASSERT_TRUE(is_reply4(kReply + tail));
    EXPECT_EQ(bytes_in(parse_wire_reply4(kReply + tail)->packet), kReply);
    ASSERT_TRUE(is_reply6(kReply6 + tail));
    EXPECT_EQ(bytes_in(parse_wire_reply6(kReply6 + tail)->packet), kMessage6);
  }
}

// The header counts as 20 bytes long to whoever reads on.
TEST(WireReplyTest, OptionsAreSteppedOver) {
  const Bytes header{
      0x46, 0x00, 0x00, 0x24,  // version 4, 6 words, total length 36
      0x00, 0x00, 0x00, 0x00,  // identification, flags, offset
      0x40, 0x01, 0x8b, 0x9c,  // time to live 64, ICMP, checksum
      0xc6, 0x33, 0x64, 0x07,  // source 198.51.100.7
      0xc0, 0x00, 0x02, 0x01,  // destination 192.0.2.1
      0x01, 0x01, 0x01, 0x00,  // no operation, three times; end of options
  };
  const Bytes packet = header + kMessage;  // the reply points into it
  const auto reply = parse_wire_reply4(packet);
  ASSERT_TRUE(reply);
  EXPECT_EQ(reply->packet.size(), 32u);
  EXPECT_EQ(echo_reply_key(reply->packet), 0x5002u);
  EXPECT_EQ(reply->sender.s_addr, inet_addr("198.51.100.7"));
}

TEST(WireReplyTest, LongestHeader) {
  Bytes packet = kHeader + Bytes(40, 0x01) + kMessage;
  packet[0] = 0x4f;
  packet[3] = 72;
  seal(packet);
  const auto reply = parse_wire_reply4(packet);
  ASSERT_TRUE(reply);
  EXPECT_EQ(echo_reply_key(reply->packet), 0x5002u);
  packet.resize(60 + 11);
  EXPECT_FALSE(is_reply4(packet));
}

TEST(WireReplyTest, OddLengths) {
  Bytes packet = kReply + Bytes{0xaa};
  packet[3] = 33;
  packet[10] = 0x8e, packet[11] = 0xa0;  // checksum of the header
  packet[22] = 0xf3, packet[23] = 0xc7;  // of the message
  EXPECT_TRUE(is_reply4(packet));
  packet[32] ^= 0x01;
  EXPECT_FALSE(is_reply4(packet)) << "the odd byte counts";

  Bytes packet6 = kReply6 + Bytes{0xaa};
  packet6[5] = 13;
  packet6[42] = 0x16, packet6[43] = 0xfe;
  EXPECT_TRUE(is_reply6(packet6));
  packet6[52] ^= 0x01;
  EXPECT_FALSE(is_reply6(packet6));
}

TEST(WireReplyTest, CutShortAnywhereIsNoReply) {
  for_each_truncation(kReply, [](const Bytes& cut) { EXPECT_FALSE(is_reply4(cut)); });
  for_each_truncation(kReply6, [](const Bytes& cut) { EXPECT_FALSE(is_reply6(cut)); });
}

TEST(WireReplyTest, NoBitMayBeWrong) {
  for_each_flipped_bit(kReply,
                       [](const Bytes& flipped, size_t) { EXPECT_FALSE(is_reply4(flipped)); });
}

// IPv6 has no checksum of its own: class, flow label and hop limit are nobody's business.
TEST(WireReply6Test, NoBitMayBeWrongThatIsSummed) {
  for_each_flipped_bit(kReply6, [](const Bytes& flipped, size_t bit) {
    const bool is_free = bit < 4 || (bit >= 8 && bit < 32) || bit / 8 == 7;
    EXPECT_EQ(is_reply6(flipped), is_free);
  });
}

TEST(WireReplyTest, VersionOfTheOtherFamily) {
  for (int version = 0; version < 16; ++version) {
    const auto first = static_cast<uint8_t>(version << 4);
    EXPECT_EQ(is_reply4(changed(kReply, 0, first | 5)), version == 4);
    EXPECT_EQ(is_reply6(changed(kReply6, 0, first)), version == 6);
  }
  EXPECT_FALSE(is_reply4(kReply6));
  EXPECT_FALSE(is_reply6(kReply));
}

TEST(WireReplyTest, HeaderShorterThanAHeader) {
  for (uint8_t words = 0; words < 5; ++words) {
    Bytes packet = kReply;
    packet[0] = 0x40 | words;
    // All that follows is right.
    std::copy(kMessage.begin(), kMessage.end(), packet.begin() + words * 4);
    seal(packet);
    EXPECT_FALSE(is_reply4(packet)) << int{words};
  }
}

TEST(WireReplyTest, LengthsThatDoNotFit) {
  for (int length = 0; length < 256; ++length) {
    const auto low = static_cast<uint8_t>(length);
    EXPECT_EQ(is_reply4(changed(kReply, 3, low)), length == 32) << length;
    EXPECT_EQ(is_reply6(changed(kReply6, 5, low)), length == 12) << length;
  }
  EXPECT_FALSE(is_reply4(changed(kReply, 2, 0x80)));
  EXPECT_FALSE(is_reply6(changed(kReply6, 4, 0x80)));
}

TEST(WireReplyTest, OtherProtocols) {
  for (int protocol = 0; protocol < 256; ++protocol) {
    const auto number = static_cast<uint8_t>(protocol);
    EXPECT_EQ(is_reply4(changed(kReply, 9, number)), protocol == 1) << protocol;
    EXPECT_EQ(is_reply6(changed(kReply6, 6, number)), protocol == 58) << protocol;
  }
}

TEST(WireReplyTest, OtherMessages) {
  for (int type = 0; type < 256; ++type) {
    const auto number = static_cast<uint8_t>(type);
    EXPECT_EQ(is_reply4(changed(kReply, 20, number)), type == 0) << type;
    EXPECT_EQ(is_reply6(changed(kReply6, 40, number)), type == 129) << type;
  }
}

TEST(WireReplyTest, PartsOfPackets) {
  EXPECT_FALSE(is_reply4(changed(kReply, 6, 0x20))) << "more fragments";
  EXPECT_FALSE(is_reply4(changed(kReply, 7, 0x01))) << "an offset";
  EXPECT_FALSE(is_reply4(changed(kReply, 6, 0x10))) << "a large offset";
  EXPECT_TRUE(is_reply4(changed(kReply, 6, 0x40))) << "not to be fragmented: whole";
}

// The kernel does not look at these either.
TEST(WireReplyTest, CodeIdentifierAndSequenceAreNotLookedAt) {
  for (const size_t offset : {21u, 24u, 25u, 26u, 27u, 1u, 5u, 8u}) {
    EXPECT_TRUE(is_reply4(changed(kReply, offset, 0x77))) << offset;
  }
}

TEST(WireReplyTest, RandomBytesAreNoReply) {
  std::mt19937 random(5);
  for (int round = 0; round < 20000; ++round) {
    Bytes packet(random() % 80);
    for (uint8_t& byte : packet) byte = static_cast<uint8_t>(random());
    EXPECT_FALSE(is_reply4(packet));
    EXPECT_FALSE(is_reply6(packet));
  }
}
