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

// Receivers of earlier tests go on listening: every test has addresses of its own.
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

  Bytes advertisement(const std::string& target_text, uint8_t type = kNeighborAdvertisement) {
    NeighborFrame frame =
        make_solicitation(kMac, parsed(target_text), parsed(address("9")), parsed(target_text));
    frame.message.type = type;
    frame.message.option_type = 2;
    const auto bytes = bytes_of(frame);
    return {bytes.begin(), bytes.end()};
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
  // The socket is gone, also when the interface is back.
  run("ip link set " + near() + " up");
  testing::internal::CaptureStderr();
  prober_.send_solicit();
  EXPECT_EQ(testing::internal::GetCapturedStderr(), "sendto() failed: Bad file descriptor\n");
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
  ASSERT_TRUE(wait_for([&] { return get_neighbor_mac(watched, &mac) == 1; }));
  EXPECT_EQ(mac, kMac);
  EXPECT_TRUE(prober_.targets().snapshot().contains(unwatched));
  EXPECT_EQ(get_neighbor_mac(unwatched, &mac), 0);
  EXPECT_EQ(get_neighbor_mac(other, &mac), 0);
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
  ASSERT_TRUE(wait_for([&] { return get_neighbor_mac(address("2"), &mac) == 1; }));
  EXPECT_EQ(get_neighbor_mac(address("3"), &mac), 0);
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
