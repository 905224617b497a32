// The ARP prober's look into the kernel's table, its request, and what it makes of replies.
#include "tests/link/arp_prober.h"

#include "support/link_fixture.h"

using testing::ElementsAre;
using testing::IsEmpty;
using testing::SizeIs;

namespace {

const std::string kTarget = Arp::kTarget;
const std::string kSource = Arp::kSource;

class ArpProberTest : public LinkFixture<Arp> {
 protected:
  ArpProberTest() {
    prober_.init(vrf());
    prober_.set_target(kTarget, kSource, "eth0");
  }

  void answer(int flags) {
    Arp::learn(network_);
    network_.arp_flags = flags;
  }

  std::optional<MacAddress> resolve() { return prober_.resolve(kTarget, kSource, "eth0"); }

  LBArp prober_;
};

}  // namespace

TEST_F(ArpProberTest, TableIsAskedForTheTarget) {
  prober_.set_target(kTarget, kSource, "an-interface-name-too-long");
  prober_.check_arp_exist();
  ASSERT_EQ(network_.arp_queries.size(), 1u);
  arpreq expected{};
  expected.arp_pa.sa_family = AF_INET;
  const uint8_t address[] = {192, 0, 2, 9};
  std::memcpy(expected.arp_pa.sa_data + 2, address, 4);
  expected.arp_ha.sa_family = 1;  // Ethernet
  std::strcpy(expected.arp_dev, "an-interface-na");
  EXPECT_EQ(std::memcmp(&network_.arp_queries[0], &expected, sizeof(expected)), 0);
  EXPECT_EQ(network_.count(AF_INET, 0), 1);
  EXPECT_EQ(network_.sockets.back().type, SOCK_DGRAM);
  EXPECT_TRUE(network_.sockets.back().close_on_exec);
}

TEST_F(ArpProberTest, CompleteEntry) {
  answer(ATF_COM);
  MacAddress mac{};
  EXPECT_EQ(prober_.check_arp_exist(), 1);
  EXPECT_EQ(prober_.get_mac(mac), 1);
  EXPECT_EQ(mac, kMac);
  answer(ATF_COM | ATF_PERM);
  EXPECT_EQ(prober_.check_arp_exist(), 1);
}

TEST_F(ArpProberTest, IncompleteEntry) {
  answer(0);
  MacAddress mac{};
  EXPECT_EQ(prober_.check_arp_exist(), 0);
  EXPECT_EQ(prober_.get_mac(mac), 0);
  EXPECT_EQ(mac, MacAddress{});
  answer(ATF_PERM | ATF_PUBL);
  EXPECT_EQ(prober_.check_arp_exist(), 0);
  EXPECT_THAT(log_records(), IsEmpty());
}

TEST_F(ArpProberTest, NoEntry) {
  network_.ioctl_errors[SIOCGARP] = ENXIO;
  MacAddress mac{};
  EXPECT_EQ(prober_.check_arp_exist(), 0);
  EXPECT_EQ(prober_.get_mac(mac), -1);
  EXPECT_THAT(log_records(), IsEmpty());
}

TEST_F(ArpProberTest, TableCannotBeAsked) {
  network_.ioctl_errors[SIOCGARP] = ENODEV;
  MacAddress mac{};
  EXPECT_EQ(prober_.get_mac(mac), -1);
  EXPECT_THAT(log_records(), IsEmpty());
  EXPECT_EQ(prober_.check_arp_exist(), -1);
  EXPECT_THAT(log_records(),
              ElementsAre(LoggedError("<check_arp_exist> Ioctl No such device(19)")));
}

TEST_F(ArpProberTest, NoSocketForTheTable) {
  Fault fault("socket", EMFILE);
  MacAddress mac{};
  EXPECT_EQ(prober_.check_arp_exist(), -1);
  EXPECT_EQ(prober_.get_mac(mac), -1);
  EXPECT_THAT(log_records(), ElementsAre(LoggedError("<check_arp_exist> Socket"),
                                         LoggedError("<get_mac> Socket")));
}

TEST_F(ArpProberTest, TargetThatIsNoAddress) {
  prober_.set_target("gateway.example", kSource, "eth0");
  MacAddress mac{};
  // An error that the conversion does not touch.
  CallHook hook(wrapped::socket, [](int, int, int) {
    errno = EAGAIN;
    return 1000;
  });
  Fault no_close("close", EBADF);
  EXPECT_EQ(prober_.check_arp_exist(), -1);
  EXPECT_EQ(prober_.get_mac(mac), -1);
  EXPECT_THAT(log_records(), ElementsAre(LoggedError("<check_arp_exist> Inet_aton() failed "
                                                     "Resource temporarily unavailable(11)"),
                                         LoggedError("<get_mac> Inet_aton")));
}

TEST_F(ArpProberTest, RequestIsBroadcast) {
  EXPECT_EQ(prober_.send_arp(), 42);
  expect_frame_by_interface();
  const Bytes expected{
      0xff, 0xff, 0xff, 0xff, 0xff, 0xff,  // Ethernet destination: broadcast
      0x02, 0x11, 0x22, 0x33, 0x44, 0x55,  // Ethernet source
      0x08, 0x06,                          // EtherType: ARP
      0x00, 0x01, 0x08, 0x00, 0x06, 0x04,  // Ethernet, IPv4, lengths
      0x00, 0x01,                          // operation: request
      0x02, 0x11, 0x22, 0x33, 0x44, 0x55,  // sender hardware address
      192,  0,    2,    1,                 // sender protocol address
      0x00, 0x00, 0x00, 0x00, 0x00, 0x00,  // target hardware address
      192,  0,    2,    9,                 // target protocol address
  };
  EXPECT_EQ(network_.sent[0].bytes, expected);
  EXPECT_EQ(network_.count(AF_INET, IPPROTO_RAW), 1);
  EXPECT_THAT(log_records(), IsEmpty());
}

TEST_F(ArpProberTest, RequestWithoutSocketForTheQuestion) {
  Fault fault("socket", EMFILE);
  EXPECT_EQ(prober_.send_arp(), -1);
  EXPECT_THAT(log_records(),
              ElementsAre(LoggedError("<send_arp> socket() failed to get socket descriptor for "
                                      "using ioctl()")));
}

TEST_F(ArpProberTest, RequestOnAnInterfaceWithoutHardwareAddress) {
  network_.ioctl_errors[SIOCGIFHWADDR] = ENODEV;
  EXPECT_EQ(prober_.send_arp(), -1);
  EXPECT_THAT(log_records(), IsEmpty());
  network_.ioctl_errors[SIOCGIFHWADDR] = EPERM;
  EXPECT_EQ(prober_.send_arp(), -1);
  EXPECT_THAT(log_records(),
              ElementsAre(LoggedError("<send_arp> ioctl() failed to get source MAC address")));
  EXPECT_THAT(network_.sent, IsEmpty());
}

TEST_F(ArpProberTest, RequestOnAnInterfaceWithoutIndex) {
  network_.ioctl_errors[SIOCGIFINDEX] = ENODEV;
  EXPECT_EQ(prober_.send_arp(), -1);
  EXPECT_THAT(log_records(),
              ElementsAre(LoggedError("<send_arp> if_nametoindex() failed to obtain interface "
                                      "index")));
}

TEST_F(ArpProberTest, RequestFromNoAddress) {
  prober_.set_target(kTarget, "", "eth0");
  EXPECT_EQ(prober_.send_arp(), -1);
  // The text belongs to the conversion's result 0, not to errno.
  EXPECT_THAT(log_records(),
              ElementsAre(LoggedError("<send_arp> inet_pton() failed for source IP address."
                                      "Error message: Success")));
}

TEST_F(ArpProberTest, RequestForANameThatDoesNotResolve) {
  Fault fault("getaddrinfo", EAI_NONAME);
  EXPECT_EQ(prober_.send_arp(), -1);
  EXPECT_THAT(log_records(), ElementsAre(LoggedError("<send_arp> getaddrinfo() failed: Name or "
                                                     "service not known")));
}

TEST_F(ArpProberTest, TargetIsResolvedByGetaddrinfo) {
  CallHook hook(wrapped::getaddrinfo, [](const char* node, const char* service,
                                         const addrinfo* hints, addrinfo** result) {
    EXPECT_STREQ(node, "192.0.2.9");
    EXPECT_EQ(service, nullptr);
    EXPECT_EQ(hints->ai_family, AF_INET);
    EXPECT_EQ(hints->ai_socktype, SOCK_STREAM);
    EXPECT_EQ(hints->ai_flags, AI_CANONNAME);
    return wrapped::getaddrinfo.real("198.51.100.7", service, hints, result);
  });
  EXPECT_EQ(prober_.send_arp(), 42);
  const Bytes& frame = network_.sent.at(0).bytes;
  EXPECT_EQ(Bytes(frame.begin() + 38, frame.end()), (Bytes{198, 51, 100, 7}));
}

TEST_F(ArpProberTest, RequestIsNotSent) {
  {
    Fault fault("sendto", ENETDOWN);
    EXPECT_EQ(prober_.send_arp(), -1);
  }
  CallHook hook(
      wrapped::sendto,
      [](int, const void*, size_t, int, const sockaddr*, socklen_t) -> ssize_t { return 0; });
  EXPECT_EQ(prober_.send_arp(), 0);
  EXPECT_THAT(log_records(), ElementsAre(LoggedError("<send_arp> sendto() failed"),
                                         LoggedError("<send_arp> sendto() failed")));
}

// The socket is that of all uplinks of the VRF, and stays open.
TEST_F(ArpProberTest, FullQueueIsAFailedRequest) {
  for (const int error : {EAGAIN, ENOBUFS}) {
    clear_log();
    network_.sent.clear();
    {
      Fault fault("sendto", error);
      EXPECT_EQ(prober_.send_arp(), -1);
    }
    EXPECT_THAT(log_records(), ElementsAre(LoggedError("<send_arp> sendto() failed"))) << error;
    EXPECT_EQ(prober_.send_arp(), 42);
    expect_frame_by_interface();
  }
}

TEST_F(ArpProberTest, ReplyOfAWatchedTargetIsEntered) {
  network_.interface_names[7] = "fifteen-letters";
  prober_.set_target(kTarget, kSource, "fifteen-letters");
  EXPECT_TRUE(handle(prober_, Arp::reply()));
  ASSERT_EQ(network_.arp_entries.size(), 1u);
  arpreq expected{};
  expected.arp_pa.sa_family = AF_INET;
  const uint8_t address[] = {192, 0, 2, 9};
  std::memcpy(expected.arp_pa.sa_data + 2, address, 4);
  expected.arp_ha.sa_family = 0;  // not 1, which the query has
  const Bytes frame = Arp::reply();
  std::memcpy(expected.arp_ha.sa_data, frame.data() + 22, 14);
  expected.arp_flags = 0x02;  // complete
  std::strcpy(expected.arp_dev, "fifteen-letters");
  EXPECT_EQ(std::memcmp(&network_.arp_entries[0], &expected, sizeof(expected)), 0);
  EXPECT_THAT(log_records(), IsEmpty());
}

TEST_F(ArpProberTest, EntryThatTheKernelRefuses) {
  network_.ioctl_errors[SIOCSARP] = EPERM;
  EXPECT_TRUE(handle(prober_, Arp::reply()));
  EXPECT_THAT(log_records(), ElementsAre(LoggedError("<add_arp_entry> 192.0.2.9")));
}

TEST_F(ArpProberTest, NoSocketForTheEntry) {
  Fault fault("socket", EMFILE);
  EXPECT_TRUE(handle(prober_, Arp::reply()));
  EXPECT_THAT(log_records(), ElementsAre(LoggedError("<add_arp_entry> socket() failed")));
}

TEST_F(ArpProberTest, IncompleteEntryIsAskedForToo) {
  answer(0);
  EXPECT_EQ(resolve(), std::nullopt);
  EXPECT_THAT(network_.sent, SizeIs(1));
  EXPECT_THAT(virtual_clock::sleeps(), SizeIs(100));
}

TEST_F(ArpProberTest, TableThatCannotBeAskedEndsTheProbe) {
  network_.ioctl_errors[SIOCGARP] = EPERM;
  EXPECT_EQ(resolve(), std::nullopt);
  EXPECT_THAT(network_.arp_queries, SizeIs(1));
  EXPECT_THAT(network_.sent, IsEmpty());
  EXPECT_THAT(virtual_clock::sleeps(), IsEmpty());
}
