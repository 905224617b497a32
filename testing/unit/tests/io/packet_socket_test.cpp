#include "tests/io/packet_socket.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <linux/if_ether.h>

#include <cstring>

#include "support/fake_network.h"

using testing::ElementsAre;

namespace {

using Bytes = FakeNetwork::Bytes;

class PacketSocketTest : public testing::Test {
 protected:
  PacketSocketTest() { network_.filters = true; }

  FakeNetwork network_;
};

}  // namespace

TEST_F(PacketSocketTest, FrameGoesToTheLinkLayerAddress) {
  const MacAddress to{6, 5, 4, 3, 2, 1};
  const Bytes frame{1, 2, 3};
  EXPECT_EQ(send_link_frame(5, 9, to, frame), 3);
  ASSERT_EQ(network_.sent.size(), 1u);
  EXPECT_EQ(network_.sent[0].fd, 5);
  EXPECT_EQ(network_.sent[0].bytes, frame);
  EXPECT_EQ(network_.sent[0].flags, MSG_DONTWAIT);
  sockaddr_ll address;
  ASSERT_EQ(network_.sent[0].address.size(), 20u);
  std::memcpy(&address, network_.sent[0].address.data(), sizeof(address));
  EXPECT_EQ(address.sll_family, 17);
  EXPECT_EQ(address.sll_protocol, 0);
  EXPECT_EQ(address.sll_ifindex, 9);
  EXPECT_EQ(address.sll_hatype, 0);
  EXPECT_EQ(address.sll_pkttype, 0);
  EXPECT_EQ(address.sll_halen, 6);
  EXPECT_THAT(address.sll_addr, ElementsAre(6, 5, 4, 3, 2, 1, 0, 0));
}

TEST_F(PacketSocketTest, SendOnlySocketQueuesNothing) {
  const FileDescriptor fd = open_send_only_packet_socket(ETH_P_ALL);
  ASSERT_TRUE(fd.valid());
  EXPECT_EQ(network_.sockets[0].protocol, htons(3));
  network_.deliver_frame(htons(ETH_P_ALL), Bytes(60));
  char byte;
  EXPECT_EQ(recv(fd.get(), &byte, 1, MSG_DONTWAIT), -1);
  EXPECT_EQ(errno, EAGAIN);
}

TEST_F(PacketSocketTest, SendOnlySocketWithoutFilterStillSends) {
  Fault fault("setsockopt", EPERM);
  const FileDescriptor fd = open_send_only_packet_socket(ETH_P_ALL);
  EXPECT_TRUE(fd.valid());
}
