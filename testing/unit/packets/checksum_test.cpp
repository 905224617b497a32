// The Internet checksum, against the RFC's own example, captured packets and a computation of
// another kind.
#include <gtest/gtest.h>

#include <random>

#include "packets/checksum.h"
#include "packets/ip_headers.h"
#include "support/packet_bytes.h"

namespace {

// The ones'-complement sum by arithmetic modulo 65535 instead of by carries: the bytes are the
// digits of one long number.
uint16_t checksum_by_remainder(const Bytes& bytes) {
  uint64_t remainder = 0;
  bool any = false;
  for (size_t i = 0; i + 1 < bytes.size(); i += 2) {
    const uint64_t word = bytes[i] * 256u + bytes[i + 1];
    any = any || word != 0;
    remainder = (remainder + word) % 65535;
  }
  if (bytes.size() % 2 == 1) {
    any = any || bytes.back() != 0;
    remainder = (remainder + bytes.back()) % 65535;
  }
  // Modulo 65535 there is one zero, in ones' complement there are two: a sum of anything but
  // nothing is the negative one.
  if (remainder == 0 && any) remainder = 65535;
  return static_cast<uint16_t>(65535 - remainder);
}

}  // namespace

TEST(ChecksumTest, ExampleOfTheRfc) {
  // RFC 1071 section 3: the sum of these words is ddf2.
  const Bytes bytes{0x00, 0x01, 0xf2, 0x03, 0xf4, 0xf5, 0xf6, 0xf7};
  EXPECT_EQ(inet_checksum(bytes), 0xffff - 0xddf2);
}

TEST(ChecksumTest, NothingAndZeros) {
  EXPECT_EQ(inet_checksum({}), 0xffff);
  EXPECT_EQ(inet_checksum(Bytes(24, 0)), 0xffff);
  EXPECT_EQ(inet_checksum(Bytes(24, 0xff)), 0);
}

TEST(ChecksumTest, WordsAreInNetworkByteOrder) {
  EXPECT_EQ(inet_checksum(Bytes{0x12, 0x34}), 0xedcb);
}

TEST(ChecksumTest, LastOddByteCountsAsLowOrderByte) {
  EXPECT_EQ(inet_checksum(Bytes{0x12}), 0xffff - 0x0012);
  EXPECT_EQ(inet_checksum(Bytes{0x12, 0x34, 0x56}), 0xffff - (0x1234 + 0x0056));
}

TEST(ChecksumTest, CarriesAreFoldedUntilNoneIsLeft) {
  // 0xffff + 0xffff + 0x0001 = 0x1ffff, folded once 0x10000, folded again 0x0001.
  EXPECT_EQ(inet_checksum(Bytes{0xff, 0xff, 0xff, 0xff, 0x00, 0x01}), 0xfffe);
  EXPECT_EQ(checksum_fold(0x0001ffff), 0xfffe);
  EXPECT_EQ(checksum_fold(0xffffffff), 0x0000);
}

TEST(ChecksumTest, AgreesWithArithmeticOfAnotherKind) {
  std::mt19937 random(20);
  for (int round = 0; round < 2000; ++round) {
    Bytes bytes(random() % 1500);
    for (uint8_t& byte : bytes) byte = static_cast<uint8_t>(random());
    ASSERT_EQ(inet_checksum(bytes), checksum_by_remainder(bytes)) << "length " << bytes.size();
  }
}

TEST(ChecksumTest, MessageWithItsChecksumSumsToZero) {
  std::mt19937 random(21);
  for (int round = 0; round < 200; ++round) {
    Bytes bytes(2 + 2 * (random() % 100));
    for (uint8_t& byte : bytes) byte = static_cast<uint8_t>(random());
    bytes[0] = bytes[1] = 0;
    const uint16_t checksum = inet_checksum(bytes);
    bytes[0] = static_cast<uint8_t>(checksum >> 8);
    bytes[1] = static_cast<uint8_t>(checksum);
    ASSERT_EQ(inet_checksum(bytes), 0);
  }
}

TEST(ChecksumTest, PartsAreSummedInTurn) {
  const Bytes all{1, 2, 3, 4, 5, 6, 7, 8};
  const std::span<const uint8_t> bytes(all);
  const uint32_t sum = checksum_words(bytes.subspan(4), checksum_words(bytes.first(4)));
  EXPECT_EQ(checksum_fold(sum), inet_checksum(bytes));
}

TEST(ChecksumTest, HeaderOfAnIpv4Packet) {
  const Bytes header{
      0x45, 0x00,              // version 4, 5 words, type of service 0
      0x00, 0x73,              // total length 115
      0x00, 0x00, 0x40, 0x00,  // identification 0, don't fragment
      0x40, 0x11,              // time to live 64, UDP
      0x00, 0x00,              // checksum, to be b861
      0xc0, 0xa8, 0x00, 0x01,  // 192.168.0.1
      0xc0, 0xa8, 0x00, 0xc7,  // 192.168.0.199
  };
  EXPECT_EQ(inet_checksum(header), 0xb861);
}

TEST(ChecksumTest, Icmp6IsSummedAfterItsPseudoHeader) {
  const Bytes message{
      0x80, 0x00,              // echo request, code 0
      0x00, 0x00,              // checksum
      0x12, 0x34, 0x00, 0x01,  // identifier, sequence
      0xca, 0xfe, 0xba, 0xbe,  // payload
  };
  Bytes whole{
      0x20, 0x01, 0x0d, 0xb8, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0,    0x01,  // source 2001:db8::1
      0x20, 0x01, 0x0d, 0xb8, 0, 7, 0, 0, 0, 0, 0, 0, 0, 0, 0xff, 0x02,  // destination
      0,    0,    0,    12,                                              // message length
      0,    0,    0,    58,                                              // zeros, next header
  };
  whole.insert(whole.end(), message.begin(), message.end());
  EXPECT_EQ(icmp6_checksum(ipv6_address("2001:db8::1"), ipv6_address("2001:db8:7::ff02"),
                           message.data(), static_cast<uint32_t>(message.size())),
            checksum_by_remainder(whole));
}

TEST(ChecksumTest, MessageWithItsOwnChecksumIsIntact) {
  std::mt19937 random(9);
  for (size_t size = 2; size < 200; size += 2) {
    Bytes bytes(size);
    for (uint8_t& byte : bytes) byte = static_cast<uint8_t>(random());
    bytes[0] = bytes[1] = 0;
    const uint16_t sum = checksum_by_remainder(bytes);
    bytes[0] = static_cast<uint8_t>(sum >> 8);
    bytes[1] = static_cast<uint8_t>(sum & 0xff);
    EXPECT_TRUE(is_intact(bytes)) << size;
    bytes[size / 2] ^= 0x10;
    EXPECT_FALSE(is_intact(bytes)) << size;
  }
  EXPECT_FALSE(is_intact(Bytes(12))) << "zeros have a checksum of ones";
}

// RFC 1071 section 4.1: as if a zero byte followed.
TEST(ChecksumTest, OddByteIsTheUpperHalfOfAWord) {
  EXPECT_TRUE(is_intact(Bytes{0x54, 0xff, 0xab}));
  EXPECT_FALSE(is_intact(Bytes{0xff, 0x54, 0xab}));
  EXPECT_TRUE(is_intact(Bytes{0x54, 0x00, 0xab}, 0xff)) << "after a pseudo-header";
}
