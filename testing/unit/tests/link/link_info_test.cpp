#include "tests/link/link_info.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <gtest/gtest.h>

#include "support/fake_network.h"

namespace {

class LinkInfoTest : public testing::Test {
 protected:
  // The one socket so far.
  void expect_one_socket(int domain, int type, int protocol, bool kept = true) {
    ASSERT_EQ(network_.sockets.size(), 1u);
    const FakeNetwork::Socket& opened = network_.sockets[0];
    EXPECT_EQ(opened.domain, domain);
    EXPECT_EQ(opened.type, type);
    EXPECT_TRUE(opened.close_on_exec);
    EXPECT_EQ(opened.protocol, protocol);
    EXPECT_EQ(FakeNetwork::is_closed(opened), !kept);
  }

  FakeNetwork network_;
  LinkInfo link_;
};

}  // namespace

TEST_F(LinkInfoTest, HardwareAddressThroughARawSocket) {
  const auto answer = link_.hardware_address(LinkSocket::kRawIpv4, "eth0");
  EXPECT_TRUE(answer.answered());
  EXPECT_EQ(answer.value, network_.own_mac);
  expect_one_socket(AF_INET, SOCK_RAW, 255);
}

// Of no protocol: the kernel need not look at it for every packet.
TEST_F(LinkInfoTest, HardwareAddressThroughAPacketSocket) {
  EXPECT_EQ(link_.hardware_address(LinkSocket::kPacket, "eth0").value, network_.own_mac);
  expect_one_socket(AF_PACKET, SOCK_RAW, 0);
}

TEST_F(LinkInfoTest, SocketsAreKeptAndAnswersAreNot) {
  link_.hardware_address(LinkSocket::kPacket, "eth0");
  network_.own_mac = {2, 2, 2, 2, 2, 2};
  EXPECT_EQ(link_.hardware_address(LinkSocket::kPacket, "eth1").value, network_.own_mac);
  expect_one_socket(AF_PACKET, SOCK_RAW, 0);
  network_.interface_index = 11;
  EXPECT_EQ(link_.index("eth1"), 11u);
  network_.interface_index = 12;
  EXPECT_EQ(link_.index("eth1"), 12u);
  link_.own_ipv4_address("eth1");
  EXPECT_EQ(network_.sockets.size(), 2u);
}

TEST_F(LinkInfoTest, SocketsGoWithIt) {
  {
    LinkInfo link;
    link.hardware_address(LinkSocket::kPacket, "eth0");
  }
  expect_one_socket(AF_PACKET, SOCK_RAW, 0, /*kept=*/false);
}

TEST_F(LinkInfoTest, FailuresTellHowFarTheQuestionCame) {
  {
    Fault fault("socket", EMFILE);
    const auto no_socket = link_.hardware_address(LinkSocket::kPacket, "eth0");
    EXPECT_EQ(no_socket.step, LinkStep::kSocketFailed);
    EXPECT_EQ(no_socket.error, EMFILE);
    EXPECT_EQ(link_.own_ipv4_address("eth0").step, LinkStep::kSocketFailed);
    errno = 0;
    EXPECT_EQ(link_.index("eth0"), 0u);
    EXPECT_EQ(errno, EMFILE);
  }
  network_.ioctl_errors[SIOCGIFHWADDR] = ENODEV;
  const auto refused = link_.hardware_address(LinkSocket::kPacket, "eth0");
  EXPECT_EQ(refused.step, LinkStep::kIoctlFailed);
  EXPECT_EQ(refused.error, ENODEV);
  network_.ioctl_errors.clear();
  EXPECT_TRUE(link_.hardware_address(LinkSocket::kPacket, "eth0").answered()) << "asked anew";
}

TEST_F(LinkInfoTest, LongNameIsCut) {
  link_.hardware_address(LinkSocket::kPacket, std::string(100, 'x'));
  ASSERT_EQ(network_.interface_requests.size(), 1u);
  EXPECT_EQ(std::string(network_.interface_requests[0].ifr_name), std::string(15, 'x'));
}

TEST_F(LinkInfoTest, LongNameHasNoIndex) {
  errno = 0;
  EXPECT_EQ(link_.index(std::string(16, 'x')), 0u);
  EXPECT_EQ(errno, ENODEV);
  EXPECT_TRUE(network_.interface_requests.empty());
  EXPECT_EQ(link_.index(std::string(15, 'x')), network_.interface_index);
}

TEST_F(LinkInfoTest, OwnAddress) {
  network_.own_address = "192.0.2.81";
  const auto answer = link_.own_ipv4_address("eth0");
  EXPECT_TRUE(answer.answered());
  EXPECT_EQ(answer.value.s_addr, inet_addr("192.0.2.81"));
  expect_one_socket(AF_INET, SOCK_DGRAM, 0);
  network_.ioctl_errors[SIOCGIFADDR] = EADDRNOTAVAIL;
  EXPECT_EQ(link_.own_ipv4_address("eth0").error, EADDRNOTAVAIL);
}

TEST_F(LinkInfoTest, NoArpFlag) {
  network_.no_arp = true;
  EXPECT_EQ(no_arp_flag("tun0"), true);
  expect_one_socket(AF_INET, SOCK_DGRAM, 0, /*kept=*/false);
  network_.no_arp = false;
  EXPECT_EQ(no_arp_flag("eth0"), false);
  network_.ioctl_errors[SIOCGIFFLAGS] = ENODEV;
  EXPECT_EQ(no_arp_flag("eth0"), std::nullopt);
  Fault fault("socket", EMFILE);
  EXPECT_EQ(no_arp_flag("eth0"), std::nullopt);
}
