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

TEST_F(PacketSocketTest, SendOnlySocketIsOfNoProtocol) {
  const FileDescriptor fd = open_send_only_packet_socket();
  ASSERT_TRUE(fd.valid());
  EXPECT_EQ(network_.sockets[0].domain, AF_PACKET);
  EXPECT_EQ(network_.sockets[0].type, SOCK_RAW);
  EXPECT_EQ(network_.sockets[0].protocol, 0);
}

TEST_F(PacketSocketTest, FilterIsRefusedOrAttached) {
  const sock_filter program[] = {BPF_STMT(BPF_RET | BPF_K, 0)};
  EXPECT_TRUE(attach_filter(5, program));
  EXPECT_FALSE(attach_filter(5, std::vector<sock_filter>(BPF_MAXINSNS + 1, program[0])));
  Fault fault("setsockopt", EPERM);
  EXPECT_FALSE(attach_filter(5, program));
}
