#include "tests/link/link_info.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <linux/if_ether.h>

#include "support/fake_kernel.h"
#include "support/recorded_log.h"
#include "tests/io/packet_socket.h"

using testing::ElementsAre;
using testing::IsEmpty;

namespace {

class LinkInfoTest : public testing::Test {
 protected:
  void expect_one_socket(int domain, int type, int protocol) {
    ASSERT_EQ(kernel_.opened().size(), 1u);
    const FakeKernel::Opened& opened = kernel_.opened()[0];
    EXPECT_EQ(opened.domain, domain);
    EXPECT_EQ(opened.type, type | SOCK_CLOEXEC);
    EXPECT_EQ(opened.protocol, protocol);
    EXPECT_EQ(fcntl(opened.fd, F_GETFD), -1) << "left open";
  }

  FakeKernel kernel_;
};

}  // namespace

TEST_F(LinkInfoTest, HardwareAddressThroughARawSocket) {
  const auto answer = hardware_address(LinkSocket::kRawIpv4, "eth0");
  EXPECT_TRUE(answer.answered());
  EXPECT_EQ(answer.value, kOwnMac);
  expect_one_socket(AF_INET, SOCK_RAW, 255);
}

TEST_F(LinkInfoTest, HardwareAddressThroughAPacketSocket) {
  EXPECT_EQ(hardware_address(LinkSocket::kPacket, "eth0").value, kOwnMac);
  expect_one_socket(AF_PACKET, SOCK_RAW, htons(3));
}

TEST_F(LinkInfoTest, FailuresTellHowFarTheQuestionCame) {
  kernel_.hardware_address_error = ENODEV;
  const auto refused = hardware_address(LinkSocket::kPacket, "eth0");
  EXPECT_EQ(refused.step, LinkStep::kIoctlFailed);
  EXPECT_EQ(refused.error, ENODEV);
  Fault fault("socket", EMFILE);
  const auto no_socket = hardware_address(LinkSocket::kPacket, "eth0");
  EXPECT_EQ(no_socket.step, LinkStep::kSocketFailed);
  EXPECT_EQ(no_socket.error, EMFILE);
}

TEST_F(LinkInfoTest, LongNameIsCut) {
  hardware_address(LinkSocket::kPacket, std::string(100, 'x'));
  ASSERT_EQ(kernel_.interface_requests.size(), 1u);
  EXPECT_EQ(std::string(kernel_.interface_requests[0].ifr_name), std::string(15, 'x'));
}

TEST_F(LinkInfoTest, OwnAddress) {
  inet_aton("192.0.2.1", &kernel_.own_address);
  const auto answer = own_ipv4_address("eth0");
  EXPECT_TRUE(answer.answered());
  EXPECT_EQ(answer.value.s_addr, inet_addr("192.0.2.1"));
  expect_one_socket(AF_INET, SOCK_DGRAM, 0);
  kernel_.address_error = EADDRNOTAVAIL;
  EXPECT_EQ(own_ipv4_address("eth0").error, EADDRNOTAVAIL);
}

TEST_F(LinkInfoTest, NoArpFlag) {
  kernel_.flags = IFF_UP | IFF_NOARP;
  EXPECT_EQ(no_arp_flag("tun0"), true);
  expect_one_socket(AF_INET, SOCK_DGRAM, 0);
  kernel_.flags = IFF_UP;
  EXPECT_EQ(no_arp_flag("eth0"), false);
  kernel_.flags_error = ENODEV;
  EXPECT_EQ(no_arp_flag("eth0"), std::nullopt);
  Fault fault("socket", EMFILE);
  EXPECT_EQ(no_arp_flag("eth0"), std::nullopt);
}

TEST_F(LinkInfoTest, FrameGoesToTheLinkLayerAddress) {
  const MacAddress to{6, 5, 4, 3, 2, 1};
  const Bytes frame{1, 2, 3};
  EXPECT_EQ(send_link_frame(5, 9, to, frame), 3);
  ASSERT_EQ(kernel_.frames.size(), 1u);
  EXPECT_EQ(kernel_.frames[0].fd, 5);
  EXPECT_EQ(kernel_.frames[0].bytes, frame);
  EXPECT_EQ(kernel_.frames[0].destination_size, 20u);
  const sockaddr_ll& address = kernel_.frames[0].destination;
  EXPECT_EQ(address.sll_family, 17);
  EXPECT_EQ(address.sll_protocol, 0);
  EXPECT_EQ(address.sll_ifindex, 9);
  EXPECT_EQ(address.sll_hatype, 0);
  EXPECT_EQ(address.sll_pkttype, 0);
  EXPECT_EQ(address.sll_halen, 6);
  EXPECT_THAT(address.sll_addr, ElementsAre(6, 5, 4, 3, 2, 1, 0, 0));
}

TEST_F(LinkInfoTest, SendOnlySocketQueuesNothing) {
  const FileDescriptor fd = open_send_only_packet_socket(ETH_P_ALL);
  ASSERT_TRUE(fd.valid());
  EXPECT_EQ(kernel_.opened()[0].protocol, htons(3));
  kernel_.deliver(htons(ETH_P_ALL), Bytes(60));
  char byte;
  EXPECT_EQ(recv(fd.get(), &byte, 1, MSG_DONTWAIT), -1);
  EXPECT_EQ(errno, EAGAIN);
}

TEST_F(LinkInfoTest, SendOnlySocketWithoutFilterStillSends) {
  Fault fault("setsockopt", EPERM);
  const FileDescriptor fd = open_send_only_packet_socket(ETH_P_ALL);
  EXPECT_TRUE(fd.valid());
}
