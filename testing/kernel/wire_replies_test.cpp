// Replies read from the wire of a real device: what the kernel's filter lets through, and the
// device that goes and comes back.
#include <arpa/inet.h>
#include <gmock/gmock.h>
#include <sched.h>

#include <algorithm>

#include "packets/icmp_echo.h"
#include "support/recorded_log.h"
#include "support/sealed_packets.h"
#include "tests/io/probes_in_flight.h"
#include "tests/io/reply_receiver.h"
#include "tests/io/reply_source.h"
#include "veth_test.h"

using testing::IsEmpty;

namespace {

constexpr uint32_t kKey = 0x1234;

// Where the ICMP message of a frame starts.
size_t message_of(bool ipv6) { return ipv6 ? 14 + 40 : 14 + 20; }

void put_key(Bytes& frame, size_t at, uint32_t key) {
  for (size_t i = 0; i < 4; ++i) frame[at + i] = static_cast<uint8_t>(key >> (24 - 8 * i));
}

// Right checksums behind the Ethernet header.
Bytes sealed(const Bytes& frame) {
  Bytes packet(frame.begin() + 14, frame.end());
  seal(packet);
  std::copy(frame.begin(), frame.begin() + 14, packet.insert(packet.begin(), 14, 0));
  return packet;
}

class KernelWireReplies : public VethTest, public testing::WithParamInterface<bool> {
 protected:
  bool ipv6() const { return GetParam(); }
  const Family& family() const { return family_of(ipv6()); }

  void SetUp() override {
    VethTest::SetUp();
    source_ = kWireReplies.open(family(), near());
    ASSERT_TRUE(source_.valid());
  }

  // An echo reply from 198.51.100.7 or 2001:db8:7::7 to the near end.
  Bytes reply(uint32_t key = kKey) const {
    Bytes frame;
    const MacAddress to = mac_of(near());
    const MacAddress from = mac_of(far());
    frame.insert(frame.end(), to.begin(), to.end());
    frame.insert(frame.end(), from.begin(), from.end());
    const Bytes rest4{0x08, 0x00,                          // EtherType: IPv4
                      0x45, 0x00, 0x00, 0x20,              // version, header, total length 32
                      0x00, 0x00, 0x00, 0x00,              // identification, flags, offset
                      0x40, 0x01, 0x00, 0x00,              // time to live, ICMP, checksum
                      0xc6, 0x33, 0x64, 0x07,              // source 198.51.100.7
                      0xc0, 0x00, 0x02, 0x01,              // destination 192.0.2.1
                      0x00, 0x00, 0x00, 0x00,              // echo reply, code, checksum
                      0x12, 0x34, 0x00, 0x00,              // identifier, sequence
                      0x00, 0x00, 0x00, 0x00};             // key
    const Bytes rest6{0x86, 0xdd,                          // EtherType: IPv6
                      0x60, 0x00, 0x00, 0x00,              // version
                      0x00, 0x0c, 0x3a, 0x40,              // length 12, ICMPv6, hop limit
                      0x20, 0x01, 0x0d, 0xb8, 0, 7, 0, 0,  // source 2001:db8:7::7
                      0,    0,    0,    0,    0, 0, 0, 7,  //
                      0x20, 0x01, 0x0d, 0xb8, 0, 0, 0, 0,  // destination 2001:db8::2
                      0,    0,    0,    0,    0, 0, 0, 2,  //
                      0x81, 0x00, 0x00, 0x00,              // echo reply, code, checksum
                      0x12, 0x34, 0x00, 0x00,              // identifier, sequence
                      0x00, 0x00, 0x00, 0x00};             // key
    const Bytes& rest = ipv6() ? rest6 : rest4;
    frame.insert(frame.end(), rest.begin(), rest.end());
    put_key(frame, message_of(ipv6()) + 8, key);
    return sealed(frame);
  }

  Bytes changed(size_t offset, uint8_t value) const {
    Bytes frame = reply();
    frame[offset] = value;
    return sealed(frame);
  }

  // The keys of the replies that come up to one with the key `last`, which is sent now. -1 stands
  // for a packet that the kernel let through although it is no reply.
  std::vector<int64_t> keys_until(uint32_t last) {
    send_from_far_end(reply(last));
    std::vector<int64_t> keys;
    const bool came = wait_for([&] {
      const ReceivedReply reply =
          kWireReplies.receive(source_.get(), family(), buffer_, MSG_DONTWAIT, false);
      if (reply.kind == ReceivedReply::Kind::kPacket) {
        const auto key = ipv6() ? echo6_reply_key(reply.packet) : echo_reply_key(reply.packet);
        keys.push_back(key.value_or(0xffffffff));
      }
      return !keys.empty() && keys.back() == last;
    });
    EXPECT_TRUE(came);
    if (came) keys.pop_back();
    return keys;
  }

  // What the kernel lets through of the frame, looked at by nobody else.
  bool passes(const Bytes& frame) {
    keys_until(1);
    send_from_far_end(frame);
    send_from_far_end(reply(2));
    size_t packets = 0;
    const bool came = wait_for([&] {
      const ssize_t length = recv(source_.get(), buffer_.data(), buffer_.size(), MSG_DONTWAIT);
      if (length <= 0) return false;
      const size_t at = message_of(ipv6()) - 14 + 8;
      const bool is_last =
          static_cast<size_t>(length) >= at + 4 && buffer_[at + 3] == 2 && buffer_[at + 2] == 0;
      packets += is_last ? 0 : 1;
      return is_last;
    });
    EXPECT_TRUE(came);
    return packets > 0;
  }

  FileDescriptor source_;
  Bytes buffer_ = Bytes(65535);
};

using KernelWireReplies4 = KernelWireReplies;

std::string name_of(const testing::TestParamInfo<bool>& info) {
  return info.param ? "Ipv6" : "Ipv4";
}

}  // namespace

INSTANTIATE_TEST_SUITE_P(Families, KernelWireReplies, testing::Values(false, true), name_of);
INSTANTIATE_TEST_SUITE_P(Families, KernelWireReplies4, testing::Values(false), name_of);

// The near end has no address, no route and a firewall's worth of reasons to drop them.
TEST_P(KernelWireReplies, AreSeenWhateverTheHostWouldDo) {
  send_from_far_end(reply());
  EXPECT_THAT(keys_until(7), testing::ElementsAre(int64_t{kKey}));
}

TEST_P(KernelWireReplies, SenderIsTold) {
  send_from_far_end(reply());
  ReceivedReply received;
  ASSERT_TRUE(wait_for([&] {
    received = kWireReplies.receive(source_.get(), family(), buffer_, MSG_DONTWAIT, false);
    return received.kind == ReceivedReply::Kind::kPacket;
  }));
  const void* address = ipv6() ? static_cast<const void*>(&received.sender.ipv6.sin6_addr)
                               : &received.sender.ipv4.sin_addr;
  EXPECT_EQ(address_to_text(family().address_family, address),
            ipv6() ? "2001:db8:7::7" : "198.51.100.7");
}

TEST_P(KernelWireReplies, KernelKeepsOtherPacketsAway) {
  const size_t message = message_of(ipv6());
  EXPECT_TRUE(passes(reply()));
  EXPECT_TRUE(passes(reply(32766)));
  EXPECT_FALSE(passes(reply(32767))) << "no key is that large";
  EXPECT_FALSE(passes(reply(0x01001234)));
  EXPECT_FALSE(passes(changed(message, family().echo_request)));
  EXPECT_FALSE(passes(changed(message, 3)));
  EXPECT_FALSE(passes(changed(ipv6() ? 20 : 23, 17))) << "UDP";
  Bytes cut = reply();
  cut.pop_back();
  EXPECT_FALSE(passes(cut)) << "no whole key";
  if (!ipv6()) {
    EXPECT_FALSE(passes(changed(20, 0x20))) << "the first part of more";
    EXPECT_FALSE(passes(changed(21, 0x01))) << "a later part";
    EXPECT_TRUE(passes(changed(20, 0x40))) << "not to be fragmented";
  }
}

TEST_P(KernelWireReplies4, KernelStepsOverOptions) {
  Bytes frame = reply();
  frame[14] = 0x46;
  frame[17] = 36;
  frame.insert(frame.begin() + 34, {0x01, 0x01, 0x01, 0x00});
  send_from_far_end(sealed(frame));
  EXPECT_THAT(keys_until(7), testing::ElementsAre(int64_t{kKey}));
}

// A bridge's flood, or a device that receives all that passes.
TEST_P(KernelWireReplies, ThoseToOtherStationsAreNotSeen) {
  run("ip link set " + near() + " promisc on");
  EXPECT_TRUE(passes(reply()));
  for (const uint8_t first : {0x02, 0x33, 0xff}) {
    Bytes frame = reply();
    frame[0] = first;
    frame[5] ^= 0x55;
    EXPECT_FALSE(passes(frame)) << int{first};
  }
}

TEST_P(KernelWireReplies, ThoseOfAVlanAreNotSeen) { EXPECT_FALSE(passes(tagged(reply()))); }

// The kernel hands them to sockets of the lower device too, as packets to this host.
TEST_P(KernelWireReplies, ThoseOfADeviceOnTopAreItsOwn) {
  const std::string upper = near() + "m";
  const std::string make = "ip link add link " + near() + " name " + upper + " type macvlan";
  if (output_of(make + " 2>&1").find("Unknown device type") != std::string::npos) {
    GTEST_SKIP() << "this kernel has no macvlan devices";
  }
  run("ip link set " + upper + " addrgenmode none up");
  Bytes frame = reply();
  const MacAddress to = mac_of(upper);
  std::copy(to.begin(), to.end(), frame.begin());
  EXPECT_FALSE(passes(frame));
  const FileDescriptor fd = kWireReplies.open(family(), upper);
  send_from_far_end(frame);
  EXPECT_TRUE(wait_for([&] {
    return kWireReplies.receive(fd.get(), family(), buffer_, MSG_DONTWAIT, false).kind ==
           ReceivedReply::Kind::kPacket;
  }));
}

TEST_P(KernelWireReplies, ThoseByAnotherDeviceAreNotSeen) {
  make_second_pair();
  Bytes frame = reply();
  const MacAddress to = mac_of(near2());
  std::copy(to.begin(), to.end(), frame.begin());
  send_from(far2(), frame);
  const FileDescriptor second = kWireReplies.open(family(), near2());
  send_from(far2(), frame);
  EXPECT_TRUE(wait_for([&] {
    return kWireReplies.receive(second.get(), family(), buffer_, MSG_DONTWAIT, false).kind ==
           ReceivedReply::Kind::kPacket;
  }));
  EXPECT_THAT(keys_until(7), IsEmpty());
}

TEST_P(KernelWireReplies, DamagedOnesAreNone) {
  Bytes frame = reply();
  frame[message_of(ipv6()) + 5] ^= 1;  // the identifier
  send_from_far_end(frame);
  if (!ipv6()) {
    frame = reply();
    frame[22] ^= 1;  // time to live
    send_from_far_end(frame);
  }
  EXPECT_THAT(keys_until(7), IsEmpty());
}

TEST_P(KernelWireReplies, PaddingIsCutOff) {
  Bytes frame = reply();
  frame.resize(frame.size() + 14, 0xa5);
  send_from_far_end(frame);
  ReceivedReply received;
  ASSERT_TRUE(wait_for([&] {
    received = kWireReplies.receive(source_.get(), family(), buffer_, MSG_DONTWAIT, false);
    return received.kind == ReceivedReply::Kind::kPacket;
  }));
  EXPECT_EQ(received.packet.size(), ipv6() ? 12u : 32u);
}

TEST_P(KernelWireReplies, DeviceGoesDownAndComesUp) {
  send_from_far_end(reply());
  EXPECT_THAT(keys_until(7), testing::ElementsAre(int64_t{kKey}));
  run("ip link set " + near() + " down");
  pollfd waiting{source_.get(), POLLIN, 0};
  ASSERT_EQ(poll(&waiting, 1, 20000), 1) << "the kernel tells a waiting reader";
  EXPECT_EQ(kWireReplies.receive(source_.get(), family(), buffer_, 0, false).kind,
            ReceivedReply::Kind::kNothing);
  waiting.revents = 0;
  EXPECT_EQ(poll(&waiting, 1, 0), 0) << "once";
  run("ip link set " + near() + " up");
  ASSERT_TRUE(wait_for([&] {
    send_from_far_end(reply());
    return kWireReplies.receive(source_.get(), family(), buffer_, MSG_DONTWAIT, false).kind ==
           ReceivedReply::Kind::kPacket;
  }));
}

// The receiver's thread goes on through all of it.
TEST_P(KernelWireReplies, ReceiverFollowsADeviceThatIsMadeAnew) {
  const auto sockets = sockets_of(family(), near(), kWireReplies);
  ensure_receiver(family(), near());
  const std::string target = ipv6() ? "2001:db8:7::7" : "198.51.100.7";
  const auto is_answered = [&](uint32_t key) {
    probes_in_flight(family()).insert(static_cast<int32_t>(key),
                                      {near(), kProbeWaiting, {}, target});
    const bool done = wait_for([&] {
      send_from_far_end(reply(key));
      return probes_in_flight(family()).find(near(), target)->probe.state == kProbeAnswered;
    });
    probes_in_flight(family()).erase(static_cast<int32_t>(key));
    return done;
  };
  EXPECT_TRUE(is_answered(101));
  const unsigned before = if_nametoindex(near().c_str());
  for (uint32_t round = 0; round < 2; ++round) {
    run("ip link del " + near());
    kWireReplies.follow(sockets->recv_socket.get(), family(), near());
    run("ip link add " + near() + " type veth peer name " + far());
    for (const std::string& name : {near(), far()}) {
      run("ip link set " + name + " addrgenmode none up");
    }
    EXPECT_NE(if_nametoindex(near().c_str()), before);
    kWireReplies.follow(sockets->recv_socket.get(), family(), near());
    EXPECT_TRUE(is_answered(102 + round));
  }
  EXPECT_THAT(log_records(), IsEmpty());
  close_sockets(family(), near());
}

TEST_P(KernelWireReplies, DeviceThatDoesNotExistYetIsFollowedLater) {
  const std::string later = near() + "l";
  source_ = kWireReplies.open(family(), later);
  ASSERT_TRUE(source_.valid());
  send_from_far_end(reply());
  run("ip link set " + near() + " name " + later);
  kWireReplies.follow(source_.get(), family(), later);
  Bytes frame = reply(9);
  const MacAddress to = mac_of(later);
  std::copy(to.begin(), to.end(), frame.begin());
  ReceivedReply received;
  EXPECT_TRUE(wait_for([&] {
    send_from_far_end(frame);
    received = kWireReplies.receive(source_.get(), family(), buffer_, MSG_DONTWAIT, false);
    return received.kind == ReceivedReply::Kind::kPacket;
  }));
  run("ip link set " + later + " name " + near());
}

// Sockets are found by the Linux name alone: a worker of another VRF may ask for the same one.
TEST_P(KernelWireReplies, DeviceOfTheSameNameInAnotherNamespaceIsNotFollowed) {
  std::thread other([&] {
    ASSERT_EQ(unshare(CLONE_NEWNET), 0);
    run("ip link add " + near() + " index 4711 type veth peer name " + far());
    kWireReplies.follow(source_.get(), family(), near());
  });
  other.join();
  kWireReplies.follow(source_.get(), family(), near());
  EXPECT_TRUE(passes(reply()));
}
