// The ARP prober with the kernel's own ARP table.
#include <arpa/inet.h>
#include <gmock/gmock.h>
#include <linux/if_ether.h>

#include "packets/arp.h"
#include "packets/packet_reader.h"
#include "support/recorded_log.h"
#include "tests/io/packet_socket.h"
#include "tests/link/arp_prober.h"
#include "tests/link/source_address.h"
#include "veth_test.h"

using testing::ElementsAre;
using testing::IsEmpty;

namespace {

const MacAddress kMac{0x06, 0xaa, 0xbb, 0xcc, 0xdd, 0xee};

// Receivers of earlier tests go on listening: every test has addresses of its own.
class KernelArp : public VethTest {
 protected:
  void SetUp() override {
    VethTest::SetUp();
    static int number = 0;
    ++number;
    network_ = "10." + std::to_string(number / 250) + "." + std::to_string(number % 250) + ".";
    prober_.init(testing::UnitTest::GetInstance()->current_test_info()->name());
  }

  // Address `host` of the test's network.
  std::string address(int host) const { return network_ + std::to_string(host); }

  void target(const std::string& text) { prober_.set_target(text, address(1), near()); }

  Bytes arp_frame(const std::string& sender, uint16_t operation,
                  const MacAddress& mac = kMac) const {
    ArpFrame frame =
        make_arp_request(mac, {inet_addr(sender.c_str())}, {inet_addr(address(1).c_str())});
    frame.operation = operation;
    const auto bytes = bytes_of(frame);
    return {bytes.begin(), bytes.end()};
  }

  int look_up(const std::string& text, MacAddress& mac) {
    target(text);
    return prober_.get_mac(mac);
  }

  void start_receiver() {
    prober_.received_arp();
    ASSERT_EQ(prober_.lock_mutex(), 0);
    ASSERT_EQ(prober_.unlock_mutex(), 0);
  }

  std::string network_;
  LBArp prober_;
};

}  // namespace

TEST_F(KernelArp, CompleteEntry) {
  run("ip neigh add " + address(2) + " lladdr 06:aa:bb:cc:dd:ee dev " + near());
  MacAddress mac{};
  target(address(2));
  EXPECT_EQ(prober_.check_arp_exist(), 1);
  EXPECT_EQ(prober_.get_mac(mac), 1);
  EXPECT_EQ(mac, kMac);
  EXPECT_THAT(log_records(), IsEmpty());
}

TEST_F(KernelArp, NoEntry) {
  MacAddress mac{};
  target(address(2));
  EXPECT_EQ(prober_.check_arp_exist(), 0);
  EXPECT_EQ(prober_.get_mac(mac), -1);
  EXPECT_THAT(log_records(), IsEmpty());
}

TEST_F(KernelArp, EntryOnAnotherInterfaceDoesNotCount) {
  run("ip neigh add " + address(2) + " lladdr 06:aa:bb:cc:dd:ee dev " + far());
  target(address(2));
  EXPECT_EQ(prober_.check_arp_exist(), 0);
}

TEST_F(KernelArp, IncompleteEntry) {
  run("ip addr add " + address(1) + "/24 dev " + near());
  // The kernel asks for an address that nobody has.
  const FileDescriptor fd(socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0));
  sockaddr_in to{};
  to.sin_family = AF_INET;
  to.sin_port = htons(9);
  to.sin_addr.s_addr = inet_addr(address(2).c_str());
  ASSERT_EQ(sendto(fd.get(), "", 1, 0, reinterpret_cast<sockaddr*>(&to), sizeof(to)), 1);
  MacAddress mac{};
  target(address(2));
  EXPECT_EQ(prober_.check_arp_exist(), 0);
  EXPECT_EQ(prober_.get_mac(mac), 0);
  EXPECT_THAT(log_records(), IsEmpty());
}

TEST_F(KernelArp, NoInterface) {
  prober_.set_target(address(2), address(1), "lbnone");
  MacAddress mac{};
  EXPECT_EQ(prober_.check_arp_exist(), -1);
  EXPECT_EQ(prober_.get_mac(mac), -1);
  EXPECT_THAT(log_records(),
              ElementsAre(LoggedError("<check_arp_exist> Ioctl No such device(19)")));
  clear_log();
  EXPECT_EQ(prober_.send_arp(), -1);
  EXPECT_THAT(log_records(), IsEmpty());
}

TEST_F(KernelArp, RequestReachesTheLink) {
  const FileDescriptor far_end = open_on(far(), ETH_P_ARP);
  target(address(2));
  EXPECT_EQ(prober_.send_arp(), 42);
  const Bytes frame = next_frame(far_end, [](const Bytes&) { return true; });
  const ArpFrame expected = make_arp_request(mac_of(near()), {inet_addr(address(1).c_str())},
                                             {inet_addr(address(2).c_str())});
  const auto bytes = bytes_of(expected);
  EXPECT_EQ(frame, Bytes(bytes.begin(), bytes.end()));
  EXPECT_THAT(log_records(), IsEmpty());
}

TEST_F(KernelArp, RequestOnAnInterfaceThatIsDown) {
  run("ip link set " + near() + " down");
  target(address(2));
  EXPECT_EQ(prober_.send_arp(), -1);
  EXPECT_THAT(log_records(), ElementsAre(LoggedError("<send_arp> sendto() failed")));
}

TEST_F(KernelArp, ReplyIsEnteredForWatchedTargetsOnly) {
  const std::string watched = address(2), unwatched = address(3), asking = address(4);
  target(asking);
  target(watched);
  start_receiver();
  send_from_far_end(arp_frame(unwatched, kArpReply));
  send_from_far_end(arp_frame(asking, kArpRequest));
  send_from_far_end(arp_frame(watched, kArpReply));  // the last one: the others were seen
  MacAddress mac{};
  ASSERT_TRUE(wait_for([&] { return look_up(watched, mac) == 1; }));
  EXPECT_EQ(mac, kMac);
  EXPECT_TRUE(prober_.targets().snapshot().contains({unwatched, near()}));
  EXPECT_EQ(look_up(asking, mac), -1);
  EXPECT_EQ(look_up(unwatched, mac), -1);
  EXPECT_THAT(log_records(), IsEmpty());
}

// Somebody on a LAN who claims an uplink's gateway.
TEST_F(KernelArp, ReplyByAnotherInterfaceIsNotEntered) {
  make_second_pair();
  target(address(2));
  start_receiver();
  send_from(far2(), arp_frame(address(2), kArpReply, {0x06, 0, 0, 0, 0, 0x66}));
  ASSERT_TRUE(wait_for([&] {
    return prober_.targets().snapshot().contains({address(2), near2()});
  }));
  MacAddress mac{};
  EXPECT_EQ(look_up(address(2), mac), -1);
  prober_.set_target(address(2), address(1), near2());
  EXPECT_EQ(prober_.get_mac(mac), -1);
  send_from_far_end(arp_frame(address(2), kArpReply));
  ASSERT_TRUE(wait_for([&] { return look_up(address(2), mac) == 1; }));
  EXPECT_EQ(mac, kMac);
}

TEST_F(KernelArp, ReplyOfAVlanIsNotEntered) {
  target(address(2));
  target(address(3));
  start_receiver();
  send_from_far_end(tagged(arp_frame(address(3), kArpReply, {0x06, 0, 0, 0, 0, 0x66})));
  send_from_far_end(arp_frame(address(2), kArpReply));
  MacAddress mac{};
  ASSERT_TRUE(wait_for([&] { return look_up(address(2), mac) == 1; }));
  EXPECT_EQ(look_up(address(3), mac), -1);
}

TEST_F(KernelArp, GatewaysOfTheSameAddressTakeTheirOwnReplies) {
  make_second_pair();
  const MacAddress second{0x06, 0, 0, 0, 0, 0x02};
  target(address(2));
  prober_.set_target(address(2), address(1), near2());
  start_receiver();
  send_from_far_end(arp_frame(address(2), kArpReply));
  send_from(far2(), arp_frame(address(2), kArpReply, second));
  MacAddress mac{};
  ASSERT_TRUE(wait_for([&] { return look_up(address(2), mac) == 1; }));
  EXPECT_EQ(mac, kMac);
  ASSERT_TRUE(wait_for([&] {
    prober_.set_target(address(2), address(1), near2());
    return prober_.get_mac(mac) == 1;
  }));
  EXPECT_EQ(mac, second);
  EXPECT_THAT(log_records(), IsEmpty());
}

TEST_F(KernelArp, ReplyOfAGroupIsNotEntered) {
  target(address(2));
  target(address(3));
  start_receiver();
  send_from_far_end(arp_frame(address(3), kArpReply, {0x01, 0, 0x5e, 0, 0, 0x01}));
  send_from_far_end(arp_frame(address(3), kArpReply, {}));
  send_from_far_end(arp_frame(address(2), kArpReply));
  MacAddress mac{};
  ASSERT_TRUE(wait_for([&] { return look_up(address(2), mac) == 1; }));
  EXPECT_EQ(look_up(address(3), mac), -1);
}

TEST_F(KernelArp, ReplyTooShortIsIgnored) {
  target(address(2));
  target(address(3));
  start_receiver();
  Bytes cut = arp_frame(address(3), kArpReply);
  cut.resize(41);
  send_from_far_end(cut);
  send_from_far_end(arp_frame(address(2), kArpReply));
  MacAddress mac{};
  ASSERT_TRUE(wait_for([&] { return look_up(address(2), mac) == 1; }));
  EXPECT_EQ(look_up(address(3), mac), -1);
}

TEST_F(KernelArp, ResolvesAPeer) {
  // The other end answers with the kernel's own ARP.
  run("ip addr add " + address(2) + "/24 dev " + far());
  std::optional<MacAddress> mac;
  // The receiver enters an answer that comes too late for one probe before the next.
  ASSERT_TRUE(wait_for([&] {
    mac = prober_.resolve(address(2), address(1), near());
    return mac.has_value();
  }));
  EXPECT_EQ(mac, mac_of(far()));
  EXPECT_THAT(log_records(), IsEmpty());
  run("ip neigh show to " + address(2) + " dev " + near() + " | grep -q lladdr");
}

TEST_F(KernelArp, SendingSocketQueuesNothing) {
  const FileDescriptor fd = open_send_only_packet_socket();
  ASSERT_TRUE(fd.valid());
  const FileDescriptor seen = open_on(near(), ETH_P_ARP);
  send_from_far_end(arp_frame(address(2), kArpReply));
  ASSERT_FALSE(next_frame(seen, [](const Bytes&) { return true; }).empty());
  char byte;
  EXPECT_EQ(recv(fd.get(), &byte, 1, MSG_DONTWAIT), -1);
  EXPECT_EQ(errno, EAGAIN);
}

TEST_F(KernelArp, AddressOnInterface) {
  HostAddresses addresses;  // the same for all: it learns of each change
  EXPECT_FALSE(address_on_interface(addresses, near(), address(1)));
  run("ip addr add " + address(1) + "/24 dev " + near());
  EXPECT_TRUE(address_on_interface(addresses, near(), address(1)));
  EXPECT_TRUE(address_on_interface(addresses, "lbn", address(1)))
      << "the name needs to begin so only";
  EXPECT_FALSE(address_on_interface(addresses, near() + "x", address(1)));
  EXPECT_FALSE(address_on_interface(addresses, far(), address(1)));
  EXPECT_FALSE(address_on_interface(addresses, near(), address(1) + "0"));
  EXPECT_FALSE(address_on_interface(addresses, near(), ""));
  run("ip link set " + near() + " down && ip link set " + near() + " name vrrp7");
  EXPECT_TRUE(address_on_interface(addresses, "lbnone", address(1)));
  run("ip link set vrrp7 name " + near());
}

TEST_F(KernelArp, InterfaceQuestions) {
  LinkInfo link;
  EXPECT_EQ(link.own_ipv4_address(near()).step, LinkStep::kIoctlFailed);
  EXPECT_EQ(link.own_ipv4_address(near()).error, EADDRNOTAVAIL);
  run("ip addr add " + address(1) + "/24 dev " + near());
  EXPECT_EQ(link.own_ipv4_address(near()).value.s_addr, inet_addr(address(1).c_str()));
  EXPECT_EQ(no_arp_flag(near()), false);
  run("ip link set " + near() + " arp off");
  EXPECT_EQ(no_arp_flag(near()), true);
  EXPECT_EQ(no_arp_flag("lbnone"), std::nullopt);
  run("ip link set " + near() + " address 06:01:02:03:04:05");
  const MacAddress mac{0x06, 0x01, 0x02, 0x03, 0x04, 0x05};
  EXPECT_EQ(link.hardware_address(LinkSocket::kPacket, near()).value, mac);
  EXPECT_EQ(link.hardware_address(LinkSocket::kRawIpv4, near()).value, mac);
  EXPECT_EQ(link.hardware_address(LinkSocket::kRawIpv4, "lbnone").error, ENODEV);
}
