// Sending into a queue that the kernel does not empty.
#include "tests/io/packet_socket.h"

#include <gmock/gmock.h>
#include <linux/if_ether.h>
#include <sys/time.h>

#include <cerrno>

#include "veth_test.h"

using testing::AnyOf;

namespace {

class KernelPacketSocket : public VethTest {};

}  // namespace

TEST_F(KernelPacketSocket, FullQueueIsAFailedSend) {
  run("tc qdisc add dev " + near() + " root tbf rate 8bit burst 3000 limit 10000000");
  const FileDescriptor fd = open_send_only_packet_socket();
  ASSERT_TRUE(fd.valid());
  // A send that waits would end only with this.
  const timeval limit{.tv_sec = 20, .tv_usec = 0};
  ASSERT_EQ(setsockopt(fd.get(), SOL_SOCKET, SO_SNDTIMEO, &limit, sizeof(limit)), 0);
  const int ifindex = static_cast<int>(if_nametoindex(near().c_str()));
  const MacAddress to{0x06, 0, 0, 0, 0, 0x01};
  Bytes frame(1000);
  const auto start = std::chrono::steady_clock::now();
  int sent = 0;
  while (sent < 100000 && send_link_frame(fd.get(), ifindex, to, frame) > 0) ++sent;
  EXPECT_THAT(errno, AnyOf(EAGAIN, ENOBUFS));
  EXPECT_LT(sent, 100000);
  EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(20));
}
