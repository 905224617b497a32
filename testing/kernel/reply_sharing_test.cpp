// Which sockets of a namespace a reply reaches, by the kernel's own choice.
#include "tests/io/reply_sharing.h"

#include <arpa/inet.h>
#include <gmock/gmock.h>
#include <linux/if_ether.h>

#include <algorithm>

#include "packets/checksum.h"
#include "packets/icmp_echo.h"
#include "packets/packet_reader.h"
#include "tests/io/message_filter.h"
#include "tests/io/packet_socket.h"
#include "tests/io/receive_queue.h"
#include "tests/io/reply_source.h"
#include "veth_test.h"

using testing::ElementsAre;
using testing::IsEmpty;

namespace {

// Two links with a receiver each, and a third receiver whose device is missing.
class KernelReplySharing : public VethTest {
 protected:
  void SetUp() override {
    VethTest::SetUp();
    make_second_pair();
    // A reply from elsewhere is one that came by another way.
    for (const std::string name : {"all", near().c_str(), near2().c_str()}) {
      run("sysctl -qw net.ipv4.conf." + name + ".rp_filter=0");
    }
    static int number = 0;
    own_ = "10.81." + std::to_string(++number) + ".1";
    run("ip addr add " + own_ + "/32 dev lo");
    for (FileDescriptor& fd : fds_) fd = kRawReplies.open(kIpv4, "");
    sharing_.follow(fds_[0].get(), near());
    sharing_.follow(fds_[1].get(), near2());
    sharing_.follow(fds_[2].get(), "lbnowhere");
  }

  // Puts an echo reply with this key on the far end of a link.
  void reply_by(const std::string& near_name, const std::string& far_name, uint32_t key = 77,
                uint8_t type = kIcmpEchoReply) {
    FrameAddresses<in_addr> addresses;
    addresses.source_mac = mac_of(far_name);
    addresses.destination_mac = mac_of(near_name);
    inet_pton(AF_INET, "198.51.100.9", &addresses.source);
    inet_pton(AF_INET, own_.c_str(), &addresses.destination);
    EchoFrame frame = make_echo_frame(addresses, 1, 1, key);
    frame.echo.type = type;
    frame.echo.checksum = 0;
    frame.echo.checksum = inet_checksum(bytes_of(frame.echo));
    const FileDescriptor wire = open_on(far_name, ETH_P_IP);
    ASSERT_GT(send_link_frame(wire.get(), static_cast<int>(if_nametoindex(far_name.c_str())),
                              addresses.destination_mac, bytes_of(frame)),
              0);
  }

  // The keys that the sockets hold once a reply with the key has reached one of them. A frame is
  // through the kernel when its successor is.
  std::vector<uint32_t> keys_in(const FileDescriptor& fd) const {
    std::vector<uint32_t> keys;
    uint8_t packet[200];
    for (ssize_t size; (size = recv(fd.get(), packet, sizeof(packet), MSG_DONTWAIT)) > 0;) {
      keys.push_back(echo_reply_key({packet, static_cast<size_t>(size)}).value_or(0));
    }
    return keys;
  }

  bool gets(const FileDescriptor& fd) const {
    pollfd waiting{fd.get(), POLLIN, 0};
    return poll(&waiting, 1, 20000) == 1;
  }

  std::string own_;
  std::array<FileDescriptor, 3> fds_;
  ReplySharing sharing_{kIpv4};
};

}  // namespace

TEST_F(KernelReplySharing, ReplyReachesTheReceiverOfItsDeviceAlone) {
  reply_by(near(), far(), 71);
  reply_by(near2(), far2(), 72);
  ASSERT_TRUE(gets(fds_[0]));
  ASSERT_TRUE(gets(fds_[1]));
  EXPECT_THAT(keys_in(fds_[0]), ElementsAre(71u));
  EXPECT_THAT(keys_in(fds_[1]), ElementsAre(72u));
  EXPECT_THAT(keys_in(fds_[2]), IsEmpty());
}

// Which is no device of any receiver.
TEST_F(KernelReplySharing, ReplyByAnotherDeviceReachesTheCollector) {
  const FileDescriptor all = kRawReplies.open(kIpv4, "");
  sharing_.leave(fds_[1].get());
  reply_by(near2(), far2(), 73);
  ASSERT_TRUE(gets(fds_[0]));
  EXPECT_THAT(keys_in(fds_[0]), ElementsAre(73u));
  EXPECT_THAT(keys_in(all), ElementsAre(73u)) << "what is not shared takes all";
}

TEST_F(KernelReplySharing, AnotherCollectorTakesOver) {
  sharing_.leave(fds_[0].get());
  fds_[0].reset();
  reply_by(near(), far(), 74);
  reply_by(near2(), far2(), 75);
  const auto collector = static_cast<size_t>(gets(fds_[1]) ? 1 : 2);
  EXPECT_EQ(collector, 1u);
  std::vector<uint32_t> keys = keys_in(fds_[1]);
  ASSERT_TRUE(keys.size() == 2 || gets(fds_[1]));
  for (const uint32_t key : keys_in(fds_[1])) keys.push_back(key);
  EXPECT_THAT(keys, testing::UnorderedElementsAre(74u, 75u));
}

TEST_F(KernelReplySharing, RemadeDeviceIsFollowed) {
  run("ip link del " + near2());
  reply_by(near(), far(), 76);
  ASSERT_TRUE(gets(fds_[0]));
  keys_in(fds_[0]);
  make_second_pair();
  run("sysctl -qw net.ipv4.conf." + near2() + ".rp_filter=0");
  // Before the next probe the collector hears for it.
  reply_by(near2(), far2(), 77);
  ASSERT_TRUE(gets(fds_[0]));
  EXPECT_THAT(keys_in(fds_[0]), ElementsAre(77u));
  sharing_.follow(fds_[1].get(), near2());
  reply_by(near2(), far2(), 78);
  ASSERT_TRUE(gets(fds_[1]));
  EXPECT_THAT(keys_in(fds_[1]), ElementsAre(78u));
  EXPECT_THAT(keys_in(fds_[0]), IsEmpty());
}

TEST_F(KernelReplySharing, OtherMessagesReachNobody) {
  for (const uint8_t type : {3, 8, 11, 13}) reply_by(near2(), far2(), 79, type);
  reply_by(near2(), far2(), 80);
  ASSERT_TRUE(gets(fds_[1]));
  EXPECT_THAT(keys_in(fds_[1]), ElementsAre(80u));
  EXPECT_THAT(keys_in(fds_[0]), IsEmpty());
}

// The filter of one that collects beside many: more devices than a jump reaches over.
TEST_F(KernelReplySharing, ManyDevicesAreRefused) {
  std::vector<uint32_t> devices;
  for (uint32_t index = 100000; index < 100450; ++index) devices.push_back(index);
  const auto index = if_nametoindex(near().c_str());
  for (const size_t place : {size_t{0}, size_t{199}, size_t{200}, size_t{449}}) {
    auto refused = devices;
    refused[place] = index;
    const FileDescriptor fd = kRawReplies.open(kIpv4, "");
    refuse_foreign_messages(fd.get(), kIpv4, refused);
    reply_by(near(), far(), 81);
    reply_by(near2(), far2(), 82);
    ASSERT_TRUE(gets(fd));
    EXPECT_THAT(keys_in(fd), ElementsAre(82u)) << place;
  }
}

TEST_F(KernelReplySharing, SendOnlySocketTakesNothing) {
  const FileDescriptor deaf(socket(AF_INET, SOCK_RAW | SOCK_CLOEXEC, IPPROTO_ICMP));
  const FileDescriptor hears(socket(AF_INET, SOCK_RAW | SOCK_CLOEXEC, IPPROTO_ICMP));
  refuse_all_messages(deaf.get(), kIpv4);
  for (const uint8_t type : {0, 3, 8, 31, 32, 40, 255}) reply_by(near(), far(), 83, type);
  ASSERT_TRUE(gets(hears));
  ASSERT_TRUE(gets(fds_[0]));
  char byte;
  EXPECT_EQ(recv(deaf.get(), &byte, 1, MSG_DONTWAIT), -1);
  EXPECT_EQ(errno, EAGAIN);
}
