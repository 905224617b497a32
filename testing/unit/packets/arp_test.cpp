#include "packets/arp.h"

#include <arpa/inet.h>
#include <gtest/gtest.h>

#include <algorithm>

#include "support/packet_bytes.h"

namespace {

Bytes reply_frame() {
  return {
      0x02, 0x11, 0x22, 0x33, 0x44, 0x55,  // Ethernet destination
      0x06, 0xaa, 0xbb, 0xcc, 0xdd, 0xee,  // Ethernet source
      0x08, 0x06,                          // EtherType: ARP
      0x00, 0x01,                          // hardware type: Ethernet
      0x08, 0x00,                          // protocol type: IPv4
      0x06,                                // hardware length
      0x04,                                // protocol length
      0x00, 0x02,                          // operation: reply
      0x06, 0xaa, 0xbb, 0xcc, 0xdd, 0xef,  // sender hardware address
      192,  0,    2,    254,               // sender protocol address
      0x02, 0x11, 0x22, 0x33, 0x44, 0x55,  // target hardware address
      192,  0,    2,    1,                 // target protocol address
  };
}

constexpr size_t kSenderHardware = 22;

// True when a flip of that bit decides whether the frame is an ARP reply at all.
bool decides(size_t bit) {
  const size_t i = bit / 8;
  const bool makes_a_group = bit == kSenderHardware * 8;
  return i == 12 || i == 13 || i == 20 || i == 21 || makes_a_group;
}

// The reply with that sender hardware address.
Bytes reply_from(const MacAddress& mac) {
  Bytes frame = reply_frame();
  std::copy(mac.begin(), mac.end(), frame.begin() + kSenderHardware);
  return frame;
}

}  // namespace

TEST(ArpTest, RequestHasEveryField) {
  const MacAddress mac{0x02, 0x11, 0x22, 0x33, 0x44, 0x55};
  const ArpFrame frame =
      make_arp_request(mac, {inet_addr("192.0.2.1")}, {inet_addr("192.0.2.254")});
  const Bytes expected{
      0xff, 0xff, 0xff, 0xff, 0xff, 0xff,  // Ethernet destination: broadcast
      0x02, 0x11, 0x22, 0x33, 0x44, 0x55,  // Ethernet source
      0x08, 0x06,                          // EtherType: ARP
      0x00, 0x01,                          // hardware type: Ethernet
      0x08, 0x00,                          // protocol type: IPv4
      0x06,                                // hardware length
      0x04,                                // protocol length
      0x00, 0x01,                          // operation: request
      0x02, 0x11, 0x22, 0x33, 0x44, 0x55,  // sender hardware address
      192,  0,    2,    1,                 // sender protocol address
      0x00, 0x00, 0x00, 0x00, 0x00, 0x00,  // target hardware address: not known
      192,  0,    2,    254,               // target protocol address
  };
  EXPECT_EQ(to_bytes(frame), expected);
}

TEST(ArpTest, ReadsReply) {
  const auto reply = parse_arp_reply(reply_frame());
  ASSERT_TRUE(reply);
  EXPECT_EQ(reply->sender.s_addr, inet_addr("192.0.2.254"));
  // The sender's hardware address and the eight bytes after it.
  const std::array<uint8_t, 14> hardware{0x06, 0xaa, 0xbb, 0xcc, 0xdd, 0xef, 192,
                                         0,    2,    254,  0x02, 0x11, 0x22, 0x33};
  EXPECT_EQ(reply->hardware, hardware);
}

TEST(ArpTest, ReadsReplyPaddedToTheSmallestFrame) {
  Bytes frame = reply_frame();
  frame.resize(60);
  EXPECT_TRUE(parse_arp_reply(frame));
}

TEST(ArpTest, IgnoresRequest) {
  Bytes frame = reply_frame();
  frame[21] = 1;
  EXPECT_FALSE(parse_arp_reply(frame));
}

TEST(ArpTest, IgnoresReplyOfAGroupOrNobody) {
  EXPECT_FALSE(parse_arp_reply(reply_from({})));
  EXPECT_FALSE(parse_arp_reply(reply_from({0xff, 0xff, 0xff, 0xff, 0xff, 0xff})));
  EXPECT_FALSE(parse_arp_reply(reply_from({0x01, 0x00, 0x5e, 0x00, 0x00, 0x01})));
  EXPECT_FALSE(parse_arp_reply(reply_from({0x33, 0x33, 0x00, 0x00, 0x00, 0x01})));
  EXPECT_FALSE(parse_arp_reply(reply_from({0x01, 0x00, 0x00, 0x00, 0x00, 0x00})));
  EXPECT_TRUE(parse_arp_reply(reply_from({0x00, 0x00, 0x00, 0x00, 0x00, 0x01})));
  EXPECT_TRUE(parse_arp_reply(reply_from({0xfe, 0xff, 0xff, 0xff, 0xff, 0xff})));
}

TEST(ArpTest, IgnoresTruncatedReply) {
  for_each_truncation(reply_frame(),
                      [](const Bytes& frame) { EXPECT_FALSE(parse_arp_reply(frame)); });
}

TEST(ArpTest, EveryBitCounts) {
  const Bytes frame = reply_frame();
  const auto good = parse_arp_reply(frame);
  ASSERT_TRUE(good);
  for_each_flipped_bit(frame, [&](const Bytes& flipped, size_t bit) {
    const size_t i = bit / 8;
    const auto reply = parse_arp_reply(flipped);
    EXPECT_EQ(reply.has_value(), !decides(bit));
    if (!reply) return;
    const bool sender = i >= 28 && i < 32;
    const bool hardware = i >= 22 && i < 36;
    EXPECT_EQ(reply->sender.s_addr != good->sender.s_addr, sender);
    EXPECT_EQ(reply->hardware != good->hardware, hardware);
  });
}
