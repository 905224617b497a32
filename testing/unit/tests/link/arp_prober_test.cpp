#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <linux/if_ether.h>

#include "support/fake_kernel.h"
#include "support/recorded_log.h"
#include "support/virtual_clock/virtual_clock.h"
#include "tests/link/arp_prober.h"

using testing::Each;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::SizeIs;
using namespace std::chrono_literals;

namespace {

const MacAddress kMac{0x06, 0xaa, 0xbb, 0xcc, 0xdd, 0xee};
const std::string kTarget = "192.0.2.254";
const std::string kSource = "192.0.2.1";

class ArpProberTest : public testing::Test {
 protected:
  ArpProberTest() {
    prober_.init(testing::UnitTest::GetInstance()->current_test_info()->name());
    prober_.set_target(kTarget, kSource, "eth0");
  }

  void answer(int flags, const MacAddress& mac = kMac) {
    kernel_.arp_query_error = 0;
    kernel_.arp_flags = flags;
    kernel_.arp_mac = mac;
  }

  static Bytes reply(uint8_t last_byte_of_sender = 254) {
    return {
        0x02, 0x11, 0x22, 0x33,
        0x44, 0x55,  // Ethernet destination
        0x06, 0xaa, 0xbb, 0xcc,
        0xdd, 0xee,  // Ethernet source
        0x08, 0x06,  // EtherType: ARP
        0x00, 0x01, 0x08, 0x00,
        0x06, 0x04,  // Ethernet, IPv4, lengths
        0x00, 0x02,  // operation: reply
        0x06, 0xaa, 0xbb, 0xcc,
        0xdd, 0xee,                             // sender hardware address
        192,  0,    2,    last_byte_of_sender,  // sender protocol address
        0x02, 0x11, 0x22, 0x33,
        0x44, 0x55,           // target hardware address
        192,  0,    2,    1,  // target protocol address
    };
  }

  // What the receiver does with a frame.
  bool handle(const Bytes& frame) {
    return kArpProtocol.handle_frame(frame, const_cast<WatchedTargets&>(prober_.targets()));
  }

  std::optional<MacAddress> resolve() { return prober_.resolve(kTarget, kSource, "eth0"); }

  FakeKernel kernel_;
  LBArp prober_;
};

}  // namespace

TEST_F(ArpProberTest, TableIsAskedForTheTarget) {
  prober_.set_target(kTarget, kSource, "an-interface-name-too-long");
  prober_.check_arp_exist();
  ASSERT_EQ(kernel_.arp_queries.size(), 1u);
  arpreq expected{};
  expected.arp_pa.sa_family = AF_INET;
  const uint8_t address[] = {192, 0, 2, 254};
  std::memcpy(expected.arp_pa.sa_data + 2, address, 4);
  expected.arp_ha.sa_family = 1;  // Ethernet
  std::strcpy(expected.arp_dev, "an-interface-na");
  EXPECT_EQ(std::memcmp(&kernel_.arp_queries[0], &expected, sizeof(expected)), 0);
  EXPECT_EQ(kernel_.count(AF_INET, 0), 1);
  EXPECT_EQ(kernel_.opened().back().type, SOCK_DGRAM | SOCK_CLOEXEC);
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
  kernel_.arp_query_error = ENXIO;
  MacAddress mac{};
  EXPECT_EQ(prober_.check_arp_exist(), 0);
  EXPECT_EQ(prober_.get_mac(mac), -1);
  EXPECT_THAT(log_records(), IsEmpty());
}

TEST_F(ArpProberTest, TableCannotBeAsked) {
  kernel_.arp_query_error = ENODEV;
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
  ASSERT_EQ(kernel_.frames.size(), 1u);
  const FakeKernel::Frame& frame = kernel_.frames[0];
  EXPECT_EQ(frame.fd, kernel_.opened()[0].fd) << "the VRF's sending socket";
  EXPECT_EQ(frame.destination_size, 20u);
  EXPECT_EQ(frame.destination.sll_family, 17);
  EXPECT_EQ(frame.destination.sll_ifindex, static_cast<int>(kIfindex));
  EXPECT_EQ(frame.destination.sll_halen, 6);
  EXPECT_THAT(frame.destination.sll_addr, ElementsAre(0x02, 0x11, 0x22, 0x33, 0x44, 0x55, 0, 0));
  const Bytes expected{
      0xff, 0xff, 0xff, 0xff, 0xff, 0xff,  // Ethernet destination: broadcast
      0x02, 0x11, 0x22, 0x33, 0x44, 0x55,  // Ethernet source
      0x08, 0x06,                          // EtherType: ARP
      0x00, 0x01, 0x08, 0x00, 0x06, 0x04,  // Ethernet, IPv4, lengths
      0x00, 0x01,                          // operation: request
      0x02, 0x11, 0x22, 0x33, 0x44, 0x55,  // sender hardware address
      192,  0,    2,    1,                 // sender protocol address
      0x00, 0x00, 0x00, 0x00, 0x00, 0x00,  // target hardware address
      192,  0,    2,    254,               // target protocol address
  };
  EXPECT_EQ(frame.bytes, expected);
  EXPECT_EQ(kernel_.count(AF_INET, IPPROTO_RAW), 1);
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
  kernel_.hardware_address_error = ENODEV;
  EXPECT_EQ(prober_.send_arp(), -1);
  EXPECT_THAT(log_records(), IsEmpty());
  kernel_.hardware_address_error = EPERM;
  EXPECT_EQ(prober_.send_arp(), -1);
  EXPECT_THAT(log_records(),
              ElementsAre(LoggedError("<send_arp> ioctl() failed to get source MAC address")));
  EXPECT_THAT(kernel_.frames, IsEmpty());
}

TEST_F(ArpProberTest, RequestOnAnInterfaceWithoutIndex) {
  Fault fault("if_nametoindex", ENODEV);
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
    EXPECT_STREQ(node, "192.0.2.254");
    EXPECT_EQ(service, nullptr);
    EXPECT_EQ(hints->ai_family, AF_INET);
    EXPECT_EQ(hints->ai_socktype, SOCK_STREAM);
    EXPECT_EQ(hints->ai_flags, AI_CANONNAME);
    return wrapped::getaddrinfo.real("198.51.100.7", service, hints, result);
  });
  EXPECT_EQ(prober_.send_arp(), 42);
  const Bytes& frame = kernel_.frames.at(0).bytes;
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

TEST_F(ArpProberTest, ReplyOfAWatchedTargetIsEntered) {
  prober_.set_target(kTarget, kSource, "an-interface-name-too-long");
  EXPECT_TRUE(handle(reply()));
  ASSERT_EQ(kernel_.arp_entries.size(), 1u);
  arpreq expected{};
  expected.arp_pa.sa_family = AF_INET;
  const uint8_t address[] = {192, 0, 2, 254};
  std::memcpy(expected.arp_pa.sa_data + 2, address, 4);
  expected.arp_ha.sa_family = 0;  // not 1, which the query has
  const Bytes frame = reply();
  std::memcpy(expected.arp_ha.sa_data, frame.data() + 22, 14);
  expected.arp_flags = 0x02;  // complete
  std::strcpy(expected.arp_dev, "an-interface-na");
  EXPECT_EQ(std::memcmp(&kernel_.arp_entries[0], &expected, sizeof(expected)), 0);
  EXPECT_THAT(log_records(), IsEmpty());
}

TEST_F(ArpProberTest, OtherFramesChangeNothing) {
  Bytes request = reply();
  request[21] = 1;
  EXPECT_TRUE(handle(request));
  Bytes other_type = reply();
  other_type[13] = 0x00;
  EXPECT_TRUE(handle(other_type));
  EXPECT_TRUE(handle(reply(7)));  // a sender that is not watched
  EXPECT_TRUE(handle({}));
  EXPECT_THAT(kernel_.arp_entries, IsEmpty());
  EXPECT_THAT(prober_.targets().snapshot(),
              ElementsAre(testing::Pair(kTarget, "eth0"), testing::Pair("192.0.2.7", "")));
}

TEST_F(ArpProberTest, EntryThatTheKernelRefuses) {
  kernel_.arp_set_error = EPERM;
  EXPECT_TRUE(handle(reply()));
  EXPECT_THAT(log_records(), ElementsAre(LoggedError("<add_arp_entry> 192.0.2.254")));
}

TEST_F(ArpProberTest, NoSocketForTheEntry) {
  Fault fault("socket", EMFILE);
  EXPECT_TRUE(handle(reply()));
  EXPECT_THAT(log_records(), ElementsAre(LoggedError("<add_arp_entry> socket() failed")));
}

TEST_F(ArpProberTest, KnownAddressNeedsNoRequest) {
  answer(ATF_COM);
  EXPECT_EQ(resolve(), kMac);
  EXPECT_THAT(kernel_.frames, IsEmpty());
  EXPECT_EQ(call_count("pthread_create"), 0);
  EXPECT_THAT(virtual_clock::sleeps(), IsEmpty());
}

TEST_F(ArpProberTest, UnknownAddressIsAskedForAndWaitedFor) {
  // The frame must not go out before the receiver listens.
  int receivers_at_sending = 0;
  CallHook hook(wrapped::sendto,
                [&](int, const void*, size_t size, int, const sockaddr*, socklen_t) {
                  receivers_at_sending = kernel_.count(AF_PACKET, htons(ETH_P_ARP));
                  return static_cast<ssize_t>(size);
                });
  virtual_clock::on_sleep([&](auto) {
    if (virtual_clock::sleeps().size() == 3) answer(ATF_COM);
  });
  EXPECT_EQ(resolve(), kMac);
  EXPECT_EQ(receivers_at_sending, 1);
  EXPECT_EQ(call_count("sendto"), 1);
  EXPECT_THAT(virtual_clock::sleeps(), ElementsAre(1ms, 1ms, 1ms));
  EXPECT_THAT(log_records(), IsEmpty());
}

TEST_F(ArpProberTest, WaitingEndsAfterAHundredPauses) {
  EXPECT_EQ(resolve(), std::nullopt);
  EXPECT_THAT(kernel_.frames, SizeIs(1));
  EXPECT_THAT(kernel_.arp_queries, SizeIs(1 + 101));
  EXPECT_THAT(virtual_clock::sleeps(), SizeIs(100));
  EXPECT_THAT(virtual_clock::sleeps(), Each(1ms));
}

TEST_F(ArpProberTest, LastLookCounts) {
  virtual_clock::on_sleep([&](auto) {
    if (virtual_clock::sleeps().size() == 100) answer(ATF_COM);
  });
  EXPECT_EQ(resolve(), kMac);
}

TEST_F(ArpProberTest, IncompleteEntryIsAskedForToo) {
  answer(0);
  EXPECT_EQ(resolve(), std::nullopt);
  EXPECT_THAT(kernel_.frames, SizeIs(1));
  EXPECT_THAT(virtual_clock::sleeps(), SizeIs(100));
}

TEST_F(ArpProberTest, FailedRequestIsWaitedForAllTheSame) {
  Fault fault("sendto", ENETDOWN);
  EXPECT_EQ(resolve(), std::nullopt);
  EXPECT_THAT(virtual_clock::sleeps(), SizeIs(100));
}

TEST_F(ArpProberTest, TableThatCannotBeAskedEndsTheProbe) {
  kernel_.arp_query_error = EPERM;
  EXPECT_EQ(resolve(), std::nullopt);
  EXPECT_THAT(kernel_.arp_queries, SizeIs(1));
  EXPECT_THAT(kernel_.frames, IsEmpty());
  EXPECT_THAT(virtual_clock::sleeps(), IsEmpty());
}

TEST_F(ArpProberTest, FailedLockEndsTheProbe) {
  std::optional<MacAddress> mac = kMac;
  {
    // Watched target, table of receivers, starting the receiver, then the caller's lock; the thread
    // does not start.
    Fault no_thread("pthread_create", EAGAIN);
    std::atomic<int> after{0};
    CallHook hook(wrapped::pthread_mutex_lock, [&](pthread_mutex_t* mutex) {
      // The first lock after the failed creation gives the lock back, the second is the caller's.
      if (call_count("pthread_create") > 0 && ++after == 2) return EDEADLK;
      return wrapped::pthread_mutex_lock.real(mutex);
    });
    mac = resolve();
  }
  EXPECT_EQ(mac, std::nullopt);
  EXPECT_THAT(log_texts().back(), testing::HasSubstr("<lock_mutex> pthread_mutex_lock"));
  EXPECT_THAT(kernel_.frames, IsEmpty());
  EXPECT_THAT(virtual_clock::sleeps(), IsEmpty());
}

TEST_F(ArpProberTest, FailedUnlockEndsTheProbe) {
  std::optional<MacAddress> mac = kMac;
  {
    std::atomic<bool> sent{false};
    CallHook send(wrapped::sendto,
                  [&](int, const void*, size_t size, int, const sockaddr*, socklen_t) {
                    sent = true;
                    return static_cast<ssize_t>(size);
                  });
    CallHook hook(wrapped::pthread_mutex_unlock, [&](pthread_mutex_t* mutex) {
      const int rc = wrapped::pthread_mutex_unlock.real(mutex);
      return sent ? EPERM : rc;
    });
    mac = resolve();
  }
  EXPECT_EQ(mac, std::nullopt);
  EXPECT_THAT(log_texts().back(), testing::HasSubstr("<unlock_mutex> pthread_mutex_unlock"));
  EXPECT_THAT(virtual_clock::sleeps(), IsEmpty());
}
