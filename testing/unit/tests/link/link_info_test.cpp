#include "tests/link/link_info.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <gtest/gtest.h>

#include "support/fake_network.h"

namespace {

class LinkInfoTest : public testing::Test {
 protected:
  void expect_one_socket(int domain, int type, int protocol) {
    ASSERT_EQ(network_.sockets.size(), 1u);
    const FakeNetwork::Socket& opened = network_.sockets[0];
    EXPECT_EQ(opened.domain, domain);
    EXPECT_EQ(opened.type, type);
    EXPECT_TRUE(opened.close_on_exec);
    EXPECT_EQ(opened.protocol, protocol);
    EXPECT_EQ(fcntl(opened.fd, F_GETFD), -1) << "left open";
  }

  FakeNetwork network_;
};

}  // namespace

TEST_F(LinkInfoTest, HardwareAddressThroughARawSocket) {
  const auto answer = hardware_address(LinkSocket::kRawIpv4, "eth0");
  EXPECT_TRUE(answer.answered());
  EXPECT_EQ(answer.value, network_.own_mac);
  expect_one_socket(AF_INET, SOCK_RAW, 255);
}

TEST_F(LinkInfoTest, HardwareAddressThroughAPacketSocket) {
  EXPECT_EQ(hardware_address(LinkSocket::kPacket, "eth0").value, network_.own_mac);
  expect_one_socket(AF_PACKET, SOCK_RAW, htons(3));
}

TEST_F(LinkInfoTest, FailuresTellHowFarTheQuestionCame) {
  network_.ioctl_errors[SIOCGIFHWADDR] = ENODEV;
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
  ASSERT_EQ(network_.interface_requests.size(), 1u);
  EXPECT_EQ(std::string(network_.interface_requests[0].ifr_name), std::string(15, 'x'));
}

TEST_F(LinkInfoTest, OwnAddress) {
  network_.own_address = "192.0.2.81";
  const auto answer = own_ipv4_address("eth0");
  EXPECT_TRUE(answer.answered());
  EXPECT_EQ(answer.value.s_addr, inet_addr("192.0.2.81"));
  expect_one_socket(AF_INET, SOCK_DGRAM, 0);
  network_.ioctl_errors[SIOCGIFADDR] = EADDRNOTAVAIL;
  EXPECT_EQ(own_ipv4_address("eth0").error, EADDRNOTAVAIL);
}

TEST_F(LinkInfoTest, NoArpFlag) {
  network_.no_arp = true;
  EXPECT_EQ(no_arp_flag("tun0"), true);
  expect_one_socket(AF_INET, SOCK_DGRAM, 0);
  network_.no_arp = false;
  EXPECT_EQ(no_arp_flag("eth0"), false);
  network_.ioctl_errors[SIOCGIFFLAGS] = ENODEV;
  EXPECT_EQ(no_arp_flag("eth0"), std::nullopt);
  Fault fault("socket", EMFILE);
  EXPECT_EQ(no_arp_flag("eth0"), std::nullopt);
}
