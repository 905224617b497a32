// The neighbour prober with the kernel's own neighbour table.
#include <arpa/inet.h>
#include <gmock/gmock.h>
#include <linux/if_ether.h>

#include "packets/neighbor_discovery.h"
#include "packets/packet_reader.h"
#include "support/recorded_log.h"
#include "tests/link/neighbor_prober.h"
#include "tests/link/route_netlink.h"
#include "veth_test.h"

using testing::IsEmpty;

namespace {

const MacAddress kMac{0x06, 0xaa, 0xbb, 0xcc, 0xdd, 0xee};

in6_addr parsed(const std::string& text) {
  in6_addr address{};
  EXPECT_EQ(inet_pton(AF_INET6, text.c_str(), &address), 1) << text;
  return address;
}

// Receivers of earlier tests go on listening: every test has addresses of its own, or interfaces.
class KernelNeighbor : public VethTest {
 protected:
  void SetUp() override {
    VethTest::SetUp();
    static int number = 0;
    network_ = "2001:db8:77:" + std::to_string(++number) + "::";
    prober_.init(testing::UnitTest::GetInstance()->current_test_info()->name());
  }

  std::string address(const std::string& host) const { return network_ + host; }

  void target(const std::string& text) { prober_.set_target(text, address("9"), near()); }

  Bytes advertisement(const std::string& target_text, uint8_t type = kNeighborAdvertisement,
                      const MacAddress& mac = kMac) const {
    NeighborFrame frame =
        make_solicitation(mac, parsed(target_text), parsed(address("9")), parsed(target_text));
    frame.message.type = type;
    frame.message.option_type = 2;
    const auto bytes = bytes_of(frame);
    return {bytes.begin(), bytes.end()};
  }

  // What the kernel's table has on an interface, by default the tested one.
  int look_up(const std::string& text, MacAddress& mac, const std::string& ifname = {}) const {
    const unsigned index = if_nametoindex((ifname.empty() ? near() : ifname).c_str());
    return get_neighbor_mac(text, index, &mac);
  }

  void start_receiver() {
    prober_.receive_reply();
    ASSERT_EQ(prober_.lock_mutex(), 0);
    ASSERT_EQ(prober_.unlock_mutex(), 0);
  }

  std::string network_;
  LBNeighbor prober_;
};

}  // namespace

TEST_F(KernelNeighbor, SolicitationReachesTheLink) {
  const FileDescriptor far_end = open_on(far(), ETH_P_IPV6);
  target(address("1:2:3"));
  prober_.send_solicit();
  const Bytes frame = next_frame(far_end, [](const Bytes& seen) {
    return seen.size() > 54 && seen[54] == kNeighborSolicitation;
  });
  const NeighborFrame expected = make_solicitation(
      mac_of(near()), parsed(address("9")), parsed("ff02::1:ff02:3"), parsed(address("1:2:3")));
  const auto bytes = bytes_of(expected);
  EXPECT_EQ(frame, Bytes(bytes.begin(), bytes.end()));
}

TEST_F(KernelNeighbor, SolicitationWithoutInterfaceIsSilent) {
  prober_.set_target(address("1"), address("9"), "lbnone");
  testing::internal::CaptureStderr();
  prober_.send_solicit();
  EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
}

TEST_F(KernelNeighbor, SolicitationOnAnInterfaceThatIsDown) {
  run("ip link set " + near() + " down");
  target(address("1"));
  testing::internal::CaptureStderr();
  prober_.send_solicit();
  EXPECT_EQ(testing::internal::GetCapturedStderr(), "sendto() failed: Network is down\n");
  // The socket is gone: the next solicitation opens another.
  run("ip link set " + near() + " up");
  const FileDescriptor far_end = open_on(far(), ETH_P_IPV6);
  EXPECT_TRUE(wait_for([&] {
    prober_.send_solicit();
    Bytes frame(100);
    return recv(far_end.get(), frame.data(), frame.size(), MSG_DONTWAIT) == 86 &&
           frame[54] == kNeighborSolicitation;
  }));
}

TEST_F(KernelNeighbor, AdvertisementIsEnteredForWatchedTargetsOnly) {
  const std::string watched = address("2"), unwatched = address("3"), other = address("4");
  target(other);
  target(watched);
  start_receiver();
  send_from_far_end(advertisement(unwatched));
  send_from_far_end(advertisement(other, 137));
  send_from_far_end(advertisement(watched));  // the last one: the others were seen
  MacAddress mac{};
  ASSERT_TRUE(wait_for([&] { return look_up(watched, mac) == 1; }));
  EXPECT_EQ(mac, kMac);
  EXPECT_TRUE(prober_.targets().snapshot().contains({unwatched, near()}));
  EXPECT_EQ(look_up(unwatched, mac), 0);
  EXPECT_EQ(look_up(other, mac), 0);
  EXPECT_THAT(log_records(), IsEmpty());
}

// Somebody on a LAN who claims an uplink's gateway.
TEST_F(KernelNeighbor, AdvertisementByAnotherInterfaceIsNotEntered) {
  make_second_pair();
  const std::string gateway = address("2");
  target(gateway);
  start_receiver();
  send_from(far2(), advertisement(gateway, kNeighborAdvertisement, {0x06, 0, 0, 0, 0, 0x66}));
  ASSERT_TRUE(wait_for([&] { return prober_.targets().snapshot().contains({gateway, near2()}); }));
  MacAddress mac{};
  EXPECT_EQ(look_up(gateway, mac), 0);
  EXPECT_EQ(look_up(gateway, mac, near2()), 0);
  send_from_far_end(advertisement(gateway));
  ASSERT_TRUE(wait_for([&] { return look_up(gateway, mac) == 1; }));
  EXPECT_EQ(mac, kMac);
}

// The kernel takes the tag off before it says by which device the frame came.
TEST_F(KernelNeighbor, AdvertisementOfAVlanIsNotEntered) {
  target(address("2"));
  target(address("3"));
  start_receiver();
  send_from_far_end(
      tagged(advertisement(address("3"), kNeighborAdvertisement, {0x06, 0, 0, 0, 0, 0x66})));
  send_from_far_end(advertisement(address("2")));
  MacAddress mac{};
  ASSERT_TRUE(wait_for([&] { return look_up(address("2"), mac) == 1; }));
  EXPECT_EQ(look_up(address("3"), mac), 0);
}

// What leaves by the uplink may be a guest's on a device above it.
TEST_F(KernelNeighbor, AdvertisementThatLeavesIsNotEntered) {
  target(address("2"));
  target(address("3"));
  start_receiver();
  send_from(near(), advertisement(address("3"), kNeighborAdvertisement, {0x06, 0, 0, 0, 0, 0x66}));
  send_from_far_end(advertisement(address("2")));
  MacAddress mac{};
  ASSERT_TRUE(wait_for([&] { return look_up(address("2"), mac) == 1; }));
  EXPECT_EQ(look_up(address("3"), mac), 0);
}

TEST_F(KernelNeighbor, GatewaysOfTheSameAddressTakeTheirOwnAdvertisements) {
  make_second_pair();
  const MacAddress second{0x06, 0, 0, 0, 0, 0x02};
  prober_.set_target("fe80::1", address("9"), near());
  prober_.set_target("fe80::1", address("9"), near2());
  start_receiver();
  send_from_far_end(advertisement("fe80::1"));
  send_from(far2(), advertisement("fe80::1", kNeighborAdvertisement, second));
  MacAddress mac{};
  ASSERT_TRUE(wait_for([&] { return look_up("fe80::1", mac) == 1; }));
  EXPECT_EQ(mac, kMac);
  ASSERT_TRUE(wait_for([&] { return look_up("fe80::1", mac, near2()) == 1; }));
  EXPECT_EQ(mac, second);
  EXPECT_THAT(log_records(), IsEmpty());
}

TEST_F(KernelNeighbor, AdvertisementWithoutLinkAddressIsIgnored) {
  target(address("2"));
  target(address("3"));
  start_receiver();
  Bytes cut = advertisement(address("3"));
  cut.resize(85);
  send_from_far_end(cut);
  send_from_far_end(advertisement(address("2")));
  MacAddress mac{};
  ASSERT_TRUE(wait_for([&] { return look_up(address("2"), mac) == 1; }));
  EXPECT_EQ(look_up(address("3"), mac), 0);
}

TEST_F(KernelNeighbor, ResolvesAPeer) {
  // The other end answers with the kernel's own neighbour discovery, which looks at the checksum.
  run("ip addr add " + address("2") + "/64 dev " + far() + " nodad");
  std::optional<MacAddress> mac;
  ASSERT_TRUE(wait_for([&] {
    mac = prober_.resolve(address("2"), address("9"), near());
    return mac.has_value();
  }));
  EXPECT_EQ(mac, mac_of(far()));
  EXPECT_THAT(log_records(), IsEmpty());
  run("ip neigh show to " + address("2") + " dev " + near() + " | grep -q lladdr");
}
