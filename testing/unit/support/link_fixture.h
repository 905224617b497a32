// What the ARP and the neighbour prober have in common for tests: two kinds of one prober, in a
// network where the kernel's tables know nobody.
#pragma once

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <linux/if_ether.h>

#include <memory>
#include <string>

#include "support/broken_mutex.h"
#include "support/captured_stderr.h"
#include "support/fake_network.h"
#include "support/recorded_log.h"
#include "support/route_answers.h"
#include "support/virtual_clock/virtual_clock.h"
#include "tests/link/arp_prober.h"
#include "tests/link/neighbor_prober.h"

inline constexpr MacAddress kOwnMac{0x02, 0x11, 0x22, 0x33, 0x44, 0x55};
inline constexpr MacAddress kMac{0x06, 0xaa, 0xbb, 0xcc, 0xdd, 0xee};

struct Arp {
  using Prober = LBArp;
  static constexpr const LinkProtocol& kProtocol = kArpProtocol;
  static constexpr const char* kTarget = "192.0.2.9";
  static constexpr const char* kOther = "192.0.2.7";
  static constexpr const char* kSource = "192.0.2.1";

  static constexpr const char* kMutex = "_arp_mutex";
  static constexpr const char* kStarter = "received_arp";
  static constexpr const char* kReceiver = "recv_arp";
  static constexpr const char* kDestructor = "~LBArp";
  static constexpr const char* kThread = "arp recv";
  static constexpr const char* kSelectFailed = "<recv_arp> select() failed";
  static constexpr const char* kRecvFailed = "<recv_arp> recv() failed";
  static constexpr const char* kNoSendSocket = "<init> socket() fo _send_sock in no-socket failed ";
  // The words of the destruction are meant.
  static constexpr const char* kNoMutex =
      "<init> pthread_mutex_destroy for _arp_mutex failed!!!!! rc = 12, errno = 11 "
      "(Resource temporarily unavailable)";

  static int receive_protocol() { return htons(ETH_P_ARP); }
  static void start(LBArp& prober) { prober.received_arp(); }
  static void request(LBArp& prober) { prober.send_arp(); }

  // The kernel's table learns the target's address; and how often it was looked into.
  static void learn(FakeNetwork& network) {
    network.ioctl_errors.erase(SIOCGARP);
    network.gateway_mac = kMac;
  }
  static size_t looks(const FakeNetwork& network) { return network.arp_queries.size(); }
  static size_t entries(const FakeNetwork& network) { return network.arp_entries.size(); }
  static std::vector<std::string> interfaces_of_entries(const FakeNetwork& network) {
    std::vector<std::string> names;
    for (const arpreq& entry : network.arp_entries) names.push_back(entry.arp_dev);
    return names;
  }

  // A reply of an address that ends in that byte.
  static Bytes reply(uint8_t last_byte = 9) {
    return {
        0x02, 0x11, 0x22, 0x33,      0x44, 0x55,  // Ethernet destination
        0x06, 0xaa, 0xbb, 0xcc,      0xdd, 0xee,  // Ethernet source
        0x08, 0x06,                               // EtherType: ARP
        0x00, 0x01, 0x08, 0x00,      0x06, 0x04,  // Ethernet, IPv4, lengths
        0x00, 0x02,                               // operation: reply
        0x06, 0xaa, 0xbb, 0xcc,      0xdd, 0xee,  // sender hardware address
        192,  0,    2,    last_byte,              // sender protocol address
        0x02, 0x11, 0x22, 0x33,      0x44, 0x55,  // target hardware address
        192,  0,    2,    1,                      // target protocol address
    };
  }
  static constexpr size_t kHardwareAddress = 22;
  // What makes it something else than a reply.
  static constexpr size_t kOperation = 21;
  static constexpr uint8_t kRequestCode = 1;
};

struct Neighbor {
  using Prober = LBNeighbor;
  static constexpr const LinkProtocol& kProtocol = kNeighborProtocol;
  static constexpr const char* kTarget = "2001:db8::1:2:9";
  static constexpr const char* kOther = "2001:db8::1:2:7";
  static constexpr const char* kSource = "2001:db8::9";

  static constexpr const char* kMutex = "_neighbor_mutex";
  static constexpr const char* kStarter = "receive_reply";
  static constexpr const char* kReceiver = "recv_neighbor";
  static constexpr const char* kDestructor = "~LBNeighbor";
  static constexpr const char* kThread = "neigh recv";
  static constexpr const char* kSelectFailed = "select() failed";
  static constexpr const char* kRecvFailed = "recv() failed";
  static constexpr const char* kNoSendSocket = "<init> socket() fo _send_sock failed ";
  static constexpr const char* kNoMutex = "wan_lb: error mutex initialization";

  static int receive_protocol() { return htons(ETH_P_IPV6); }
  static void start(LBNeighbor& prober) { prober.receive_reply(); }
  static void request(LBNeighbor& prober) { prober.send_solicit(); }

  static void learn(FakeNetwork& network) { network.netlink_answers = {entry(kTarget, kMac)}; }
  static size_t looks(const FakeNetwork& network) { return network.netlink_requests.size(); }
  static size_t entries(const FakeNetwork& network) { return network.netlink_requests.size(); }
  static std::vector<std::string> interfaces_of_entries(const FakeNetwork& network) {
    std::vector<std::string> names;
    for (const Bytes& request : network.netlink_requests) {
      int32_t ifindex;
      std::memcpy(&ifindex, request.data() + 20, sizeof(ifindex));
      names.push_back(network.interface_names.at(static_cast<unsigned>(ifindex)));
    }
    return names;
  }

  // An advertisement of an address that ends in that byte.
  static Bytes reply(uint8_t last_byte = 9) {
    Bytes frame(86);
    frame[12] = 0x86, frame[13] = 0xdd;  // EtherType: IPv6
    frame[20] = 58;                      // next header: ICMPv6
    frame[21] = 255;                     // hop limit
    frame[54] = 136;                     // type: neighbour advertisement
    const Bytes target = address_bytes(kTarget);
    std::copy(target.begin(), target.end(), frame.begin() + 62);
    frame[77] = last_byte;
    frame[78] = 2, frame[79] = 1;  // option: target link-layer address
    std::copy(kMac.begin(), kMac.end(), frame.begin() + 80);
    return frame;
  }
  static constexpr size_t kHardwareAddress = 80;
  static constexpr size_t kOperation = 54;
  static constexpr uint8_t kRequestCode = 135;
};

using BothKinds = testing::Types<Arp, Neighbor>;

struct KindName {
  template <class Kind>
  static std::string GetName(int) {
    return std::is_same_v<Kind, Arp> ? "arp" : "neighbor";
  }
};

template <class Kind>
class LinkFixture : public testing::Test {
 protected:
  using Prober = typename Kind::Prober;
  using Target = WatchedTargets::Target;

  LinkFixture() {
    network_.filters = true;
    network_.own_mac = kOwnMac;
    network_.ioctl_errors[SIOCGARP] = ENXIO;
    network_.netlink_answers = {done()};
  }

  // A prober of the VRF that is named after the test.
  std::unique_ptr<Prober> make_prober() {
    auto prober = std::make_unique<Prober>();
    handshake_ = mutex_made_by([&] { prober->init(vrf()); });
    return prober;
  }

  static std::string vrf() {
    const auto* const test = testing::UnitTest::GetInstance()->current_test_info();
    return std::string(test->test_suite_name()) + test->name();
  }

  // Starts the prober's receiver and waits until it listens.
  static void listen(Prober& prober) {
    Kind::start(prober);
    ASSERT_EQ(prober.lock_mutex(), 0);
    ASSERT_EQ(prober.unlock_mutex(), 0);
  }

  // Lets the receiver take these frames, and ends it.
  void receive(std::initializer_list<Bytes> frames) {
    for (const Bytes& frame : frames) network_.deliver_frame(Kind::receive_protocol(), frame);
    network_.end_threads();
  }

  // What the receiver does with a frame that came by the interface with that index, here eth0.
  static bool handle(const Prober& prober, const Bytes& frame, unsigned ifindex = 7) {
    return Kind::kProtocol.handle_frame(frame, ifindex,
                                        const_cast<WatchedTargets&>(prober.targets()));
  }

  // The one frame that was sent went out by the VRF's first socket and interface 7.
  void expect_frame_by_interface() const {
    ASSERT_EQ(network_.sent.size(), 1u);
    EXPECT_EQ(network_.sent[0].fd, network_.sockets[0].fd) << "the VRF's sending socket";
    EXPECT_EQ(network_.sent[0].flags, MSG_DONTWAIT);
    sockaddr_ll address;
    ASSERT_EQ(network_.sent[0].address.size(), sizeof(address));
    std::memcpy(&address, network_.sent[0].address.data(), sizeof(address));
    EXPECT_EQ(address.sll_family, 17);
    EXPECT_EQ(address.sll_ifindex, 7);
    EXPECT_EQ(address.sll_halen, 6);
    EXPECT_THAT(address.sll_addr, testing::ElementsAre(0x02, 0x11, 0x22, 0x33, 0x44, 0x55, 0, 0));
  }

  static auto logged_mutex_failure(const char* operation, const char* call, int rc,
                                   int error = EAGAIN) {
    return LoggedError(mutex_failure(operation, call, Kind::kMutex, rc, error));
  }

  FakeNetwork network_;
  pthread_mutex_t* handshake_ = nullptr;  // inside the handshake lock of the last prober made
};
