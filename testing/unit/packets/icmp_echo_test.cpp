// Echo requests byte for byte.
#include "packets/icmp_echo.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "support/packet_bytes.h"

using testing::ElementsAreArray;

TEST(IcmpEchoTest, RawIpv4Request) {
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

TEST(IcmpEchoTest, SequenceIsSummedToo) {
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

TEST(IcmpEchoTest, RawIpv6Request) {
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

TEST(IcmpEchoTest, Ipv4Frame) {
  FrameAddresses<in_addr> addresses;
  addresses.destination_mac = {0x02, 0x11, 0x22, 0x33, 0x44, 0x55};
  addresses.source_mac = {0x02, 0xaa, 0xbb, 0xcc, 0xdd, 0xee};
  addresses.source = {inet_addr("192.0.2.1")};
  addresses.destination = {inet_addr("198.51.100.7")};
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

TEST(IcmpEchoTest, Ipv6Frame) {
  FrameAddresses<in6_addr> addresses;
  addresses.destination_mac = {0x02, 0x11, 0x22, 0x33, 0x44, 0x55};
  addresses.source_mac = {0x02, 0xaa, 0xbb, 0xcc, 0xdd, 0xee};
  addresses.source = ipv6_address("2001:db8::1");
  addresses.destination = ipv6_address("2001:db8:7::ff02");
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
