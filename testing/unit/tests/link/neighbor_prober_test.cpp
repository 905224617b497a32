// The neighbour prober's solicitation, and what it makes of advertisements.
#include "tests/link/neighbor_prober.h"

#include "support/link_fixture.h"

using testing::ElementsAre;
using testing::IsEmpty;
using testing::SizeIs;

namespace {

const std::string kTarget = Neighbor::kTarget;
const std::string kSource = Neighbor::kSource;

class NeighborProberTest : public LinkFixture<Neighbor> {
 protected:
  NeighborProberTest() {
    prober_.init(vrf());
    prober_.set_target(kTarget, kSource, "eth0");
  }

  // What a solicitation prints when it fails.
  std::string solicit() {
    CapturedStderr output;
    prober_.send_solicit();
    return output.text();
  }

  std::optional<MacAddress> resolve() { return prober_.resolve(kTarget, kSource, "eth0"); }

  LBNeighbor prober_;
};

}  // namespace

TEST_F(NeighborProberTest, SolicitationGoesToTheSolicitedNode) {
  EXPECT_EQ(solicit(), "");
  expect_frame_by_interface();
  const Bytes expected{
      0x33, 0x33, 0xff, 0x02, 0x00, 0x09,              // Ethernet destination
      0x02, 0x11, 0x22, 0x33, 0x44, 0x55,              // Ethernet source
      0x86, 0xdd,                                      // EtherType: IPv6
      0x60, 0x00, 0x00, 0x00,                          // version, traffic class, flow label
      0x00, 0x20,                                      // payload length 32
      0x3a, 0xff,                                      // ICMPv6, hop limit 255
      0x20, 0x01, 0x0d, 0xb8, 0,    0,    0,    0,     // source 2001:db8::9
      0,    0,    0,    0,    0,    0,    0,    9,     //
      0xff, 0x02, 0,    0,    0,    0,    0,    0,     // destination ff02::1:ff02:9
      0,    0,    0,    1,    0xff, 0x02, 0x00, 0x09,  //
      0x87, 0x00,                                      // neighbour solicitation
      0xb1, 0x8b,                                      // checksum
      0x03, 0xe8, 0x00, 0x00,                          // 1000, 0
      0x20, 0x01, 0x0d, 0xb8, 0,    0,    0,    0,     // target 2001:db8::1:2:9
      0,    0,    0,    1,    0,    2,    0,    9,     //
      0x01, 0x01,                                      // option: source link-layer address
      0x02, 0x11, 0x22, 0x33, 0x44, 0x55,              //
  };
  EXPECT_EQ(network_.sent[0].bytes, expected);
  // The question for the hardware address goes through a packet socket of its own.
  EXPECT_EQ(network_.count(AF_PACKET, 0), 2);
  EXPECT_THAT(log_records(), IsEmpty());
}

TEST_F(NeighborProberTest, SolicitationWithoutSocketForTheQuestion) {
  Fault fault("socket", EMFILE);
  EXPECT_EQ(solicit(),
            "socket() failed to get socket descriptor for using ioctl() : Too many open files\n");
}

TEST_F(NeighborProberTest, SolicitationOnAnInterfaceWithoutHardwareAddress) {
  network_.ioctl_errors[SIOCGIFHWADDR] = ENODEV;
  EXPECT_EQ(solicit(), "");
  network_.ioctl_errors[SIOCGIFHWADDR] = EPERM;
  EXPECT_EQ(solicit(), "ioctl() failed to get source MAC address : Operation not permitted\n");
  EXPECT_THAT(network_.sent, IsEmpty());
}

TEST_F(NeighborProberTest, SolicitationOnAnInterfaceWithoutIndex) {
  network_.ioctl_errors[SIOCGIFINDEX] = ENODEV;
  EXPECT_EQ(solicit(), "if_nametoindex() failed to obtain interface index : No such device\n");
}

TEST_F(NeighborProberTest, MulticastAddressIsResolved) {
  CallHook hook(wrapped::getaddrinfo, [](const char* node, const char* service,
                                         const addrinfo* hints, addrinfo** result) {
    EXPECT_STREQ(node, "ff02::1:ff00:2");
    EXPECT_EQ(service, nullptr);
    EXPECT_EQ(hints->ai_family, AF_INET6);
    EXPECT_EQ(hints->ai_socktype, SOCK_STREAM);
    EXPECT_EQ(hints->ai_flags, AI_CANONNAME);
    return wrapped::getaddrinfo.real(node, service, hints, result);
  });
  EXPECT_EQ(solicit(), "");
  EXPECT_EQ(call_count("getaddrinfo"), 1);
}

TEST_F(NeighborProberTest, MulticastAddressDoesNotResolve) {
  Fault fault("getaddrinfo", EAI_NONAME);
  EXPECT_EQ(solicit(), "getaddrinfo() failed: Name or service not known\n");
}

TEST_F(NeighborProberTest, MulticastAddressHasNoText) {
  Fault fault("inet_ntop", ENOSPC);
  EXPECT_EQ(solicit(), "inet_ntop() failed.\nError message: No space left on device");
}

TEST_F(NeighborProberTest, SolicitationForOrFromNoAddress) {
  // The text belongs to the conversion's result 0.
  const std::string failed = "inet_pton() failed.\nError message: Success";
  prober_.set_target("192.0.2.1", kSource, "eth0");
  EXPECT_EQ(solicit(), failed);
  prober_.set_target(kTarget, "", "eth0");
  EXPECT_EQ(solicit(), failed);
  EXPECT_THAT(network_.sent, IsEmpty());
}

// An entry of the same address on another uplink is another gateway's.
TEST_F(NeighborProberTest, EntryOnAnotherInterfaceIsNotTheTargets) {
  Bytes table = entry(kTarget, MacAddress{2, 0, 0, 0, 0, 8});
  set(table, 20, int32_t{8});
  append(table, done());
  network_.netlink_answers = {table};
  EXPECT_EQ(resolve(), std::nullopt);
  EXPECT_THAT(network_.sent, SizeIs(1));

  Bytes both = entry(kTarget, kMac);
  append(both, table);
  network_.netlink_answers = {both};
  EXPECT_EQ(resolve(), kMac);
  network_.interface_names = {{7, "eth1"}, {8, "eth0"}};
  EXPECT_EQ(resolve(), (MacAddress{2, 0, 0, 0, 0, 8}));
}

TEST_F(NeighborProberTest, InterfaceThatHasGoneHasNoEntries) {
  Neighbor::learn(network_);
  network_.ioctl_errors[SIOCGIFINDEX] = ENODEV;
  CapturedStderr output;
  EXPECT_EQ(resolve(), std::nullopt);
  EXPECT_THAT(network_.netlink_requests, IsEmpty());
}

TEST_F(NeighborProberTest, AdvertisementOfAWatchedTargetIsEntered) {
  network_.netlink_answers = {error_message(0)};
  EXPECT_TRUE(handle(prober_, Neighbor::reply()));
  ASSERT_EQ(network_.netlink_requests.size(), 1u);
  const Bytes& request = network_.netlink_requests[0];
  ASSERT_EQ(request.size(), 60u);
  const Bytes target = address_bytes(kTarget);
  EXPECT_TRUE(std::equal(target.begin(), target.end(), request.begin() + 32));
  EXPECT_TRUE(std::equal(kMac.begin(), kMac.end(), request.begin() + 52));
  EXPECT_THAT(log_records(), IsEmpty());
}

TEST_F(NeighborProberTest, RefusedEntryDoesNotEndTheReceiver) {
  network_.netlink_answers = {error_message(-EEXIST)};
  EXPECT_TRUE(handle(prober_, Neighbor::reply()));
  EXPECT_THAT(log_records(), ElementsAre(LoggedError("RTNETLINK answers: File exists\n")));
}

TEST_F(NeighborProberTest, AdvertisementWithoutTextEndsTheReceiver) {
  CapturedStderr output;
  Fault fault("inet_ntop", ENOSPC);
  EXPECT_FALSE(handle(prober_, Neighbor::reply()));
  EXPECT_EQ(output.text(), "inet_ntop() failed.\nError message: No space left on device");
  EXPECT_THAT(prober_.targets().snapshot(), SizeIs(1));
}

TEST_F(NeighborProberTest, TableThatCannotBeReadIsSolicitedToo) {
  network_.netlink_answers = {error_message(-EPERM)};
  EXPECT_EQ(resolve(), std::nullopt);
  EXPECT_THAT(network_.sent, SizeIs(1));
  EXPECT_THAT(virtual_clock::sleeps(), SizeIs(100));
}
