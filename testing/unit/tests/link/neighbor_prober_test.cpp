#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <linux/if_ether.h>

#include "support/fake_kernel.h"
#include "support/recorded_log.h"
#include "support/route_answers.h"
#include "support/virtual_clock/virtual_clock.h"
#include "tests/link/neighbor_prober.h"

using testing::Each;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::SizeIs;
using namespace std::chrono_literals;

namespace {

const MacAddress kMac{0x06, 0xaa, 0xbb, 0xcc, 0xdd, 0xee};
const std::string kTarget = "2001:db8::1:2:3";
const std::string kSource = "2001:db8::9";

class NeighborProberTest : public testing::Test {
 protected:
  NeighborProberTest() {
    prober_.init(testing::UnitTest::GetInstance()->current_test_info()->name());
    prober_.set_target(kTarget, kSource, "eth0");
    kernel_.netlink_answers = {done()};
  }

  static Bytes advertisement(uint8_t last_byte_of_target = 3) {
    Bytes frame(86);
    frame[12] = 0x86, frame[13] = 0xdd;  // EtherType: IPv6
    frame[54] = 136;                     // type: neighbour advertisement
    const Bytes target = address_bytes(kTarget);
    std::copy(target.begin(), target.end(), frame.begin() + 62);
    frame[77] = last_byte_of_target;
    frame[78] = 2, frame[79] = 1;  // option: target link-layer address
    std::copy(kMac.begin(), kMac.end(), frame.begin() + 80);
    return frame;
  }

  bool handle(const Bytes& frame) {
    return kNeighborProtocol.handle_frame(frame, const_cast<WatchedTargets&>(prober_.targets()));
  }

  // What a solicitation prints when it fails.
  std::string solicit() {
    CapturedStderr output;
    prober_.send_solicit();
    return output.text();
  }

  std::optional<MacAddress> resolve() { return prober_.resolve(kTarget, kSource, "eth0"); }

  FakeKernel kernel_;
  LBNeighbor prober_;
};

}  // namespace

TEST_F(NeighborProberTest, SolicitationGoesToTheSolicitedNode) {
  EXPECT_EQ(solicit(), "");
  ASSERT_EQ(kernel_.frames.size(), 1u);
  const FakeKernel::Frame& frame = kernel_.frames[0];
  EXPECT_EQ(frame.fd, kernel_.opened()[0].fd) << "the VRF's sending socket";
  EXPECT_EQ(frame.destination_size, 20u);
  EXPECT_EQ(frame.destination.sll_family, 17);
  EXPECT_EQ(frame.destination.sll_ifindex, static_cast<int>(kIfindex));
  EXPECT_EQ(frame.destination.sll_halen, 6);
  EXPECT_THAT(frame.destination.sll_addr, ElementsAre(0x02, 0x11, 0x22, 0x33, 0x44, 0x55, 0, 0));
  const Bytes expected{
      0x33, 0x33, 0xff, 0x02, 0x00, 0x03,              // Ethernet destination
      0x02, 0x11, 0x22, 0x33, 0x44, 0x55,              // Ethernet source
      0x86, 0xdd,                                      // EtherType: IPv6
      0x60, 0x00, 0x00, 0x00,                          // version, traffic class, flow label
      0x00, 0x20,                                      // payload length 32
      0x3a, 0xff,                                      // ICMPv6, hop limit 255
      0x20, 0x01, 0x0d, 0xb8, 0,    0,    0,    0,     // source 2001:db8::9
      0,    0,    0,    0,    0,    0,    0,    9,     //
      0xff, 0x02, 0,    0,    0,    0,    0,    0,     // destination ff02::1:ff02:3
      0,    0,    0,    1,    0xff, 0x02, 0x00, 0x03,  //
      0x87, 0x00,                                      // neighbour solicitation
      0xb1, 0x97,                                      // checksum
      0x03, 0xe8, 0x00, 0x00,                          // 1000, 0
      0x20, 0x01, 0x0d, 0xb8, 0,    0,    0,    0,     // target 2001:db8::1:2:3
      0,    0,    0,    1,    0,    2,    0,    3,     //
      0x01, 0x01,                                      // option: source link-layer address
      0x02, 0x11, 0x22, 0x33, 0x44, 0x55,              //
  };
  EXPECT_EQ(frame.bytes, expected);
  // The question for the hardware address goes through a packet socket of its own.
  EXPECT_EQ(kernel_.count(AF_PACKET, htons(ETH_P_ALL)), 2);
  EXPECT_THAT(log_records(), IsEmpty());
}

TEST_F(NeighborProberTest, SolicitationWithoutSocketForTheQuestion) {
  Fault fault("socket", EMFILE);
  EXPECT_EQ(solicit(),
            "socket() failed to get socket descriptor for using ioctl() : Too many open files\n");
}

TEST_F(NeighborProberTest, SolicitationOnAnInterfaceWithoutHardwareAddress) {
  kernel_.hardware_address_error = ENODEV;
  EXPECT_EQ(solicit(), "");
  kernel_.hardware_address_error = EPERM;
  EXPECT_EQ(solicit(), "ioctl() failed to get source MAC address : Operation not permitted\n");
  EXPECT_THAT(kernel_.frames, IsEmpty());
}

TEST_F(NeighborProberTest, SolicitationOnAnInterfaceWithoutIndex) {
  Fault fault("if_nametoindex", ENODEV);
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
  EXPECT_THAT(kernel_.frames, IsEmpty());
}

TEST_F(NeighborProberTest, FailedSendingClosesTheSocketForGood) {
  {
    Fault fault("sendto", ENETDOWN);
    EXPECT_EQ(solicit(), "sendto() failed: Network is down\n");
  }
  EXPECT_EQ(solicit(), "sendto() failed: Bad file descriptor\n");
  EXPECT_THAT(kernel_.frames, IsEmpty());
  EXPECT_THAT(log_records(), IsEmpty());
}

TEST_F(NeighborProberTest, AdvertisementOfAWatchedTargetIsEntered) {
  kernel_.netlink_answers = {error_message(0)};
  EXPECT_TRUE(handle(advertisement()));
  ASSERT_EQ(kernel_.netlink_requests.size(), 1u);
  const Bytes& request = kernel_.netlink_requests[0];
  ASSERT_EQ(request.size(), 60u);
  const Bytes target = address_bytes(kTarget);
  EXPECT_TRUE(std::equal(target.begin(), target.end(), request.begin() + 32));
  EXPECT_TRUE(std::equal(kMac.begin(), kMac.end(), request.begin() + 52));
  EXPECT_THAT(log_records(), IsEmpty());
}

TEST_F(NeighborProberTest, RefusedEntryDoesNotEndTheReceiver) {
  kernel_.netlink_answers = {error_message(-EEXIST)};
  EXPECT_TRUE(handle(advertisement()));
  EXPECT_THAT(log_records(), ElementsAre(LoggedError("RTNETLINK answers: File exists\n")));
}

TEST_F(NeighborProberTest, OtherFramesChangeNothing) {
  Bytes solicitation = advertisement();
  solicitation[54] = 135;
  EXPECT_TRUE(handle(solicitation));
  EXPECT_TRUE(handle({}));
  EXPECT_TRUE(handle(advertisement(4)));  // a target that is not watched
  EXPECT_THAT(kernel_.netlink_requests, IsEmpty());
  EXPECT_THAT(prober_.targets().snapshot(),
              ElementsAre(testing::Pair(kTarget, "eth0"), testing::Pair("2001:db8::1:2:4", "")));
}

TEST_F(NeighborProberTest, AdvertisementWithoutTextEndsTheReceiver) {
  CapturedStderr output;
  Fault fault("inet_ntop", ENOSPC);
  EXPECT_FALSE(handle(advertisement()));
  EXPECT_EQ(output.text(), "inet_ntop() failed.\nError message: No space left on device");
  EXPECT_THAT(prober_.targets().snapshot(), SizeIs(1));
}

TEST_F(NeighborProberTest, KnownAddressNeedsNoRequest) {
  kernel_.netlink_answers = {entry(kTarget, kMac)};
  EXPECT_EQ(resolve(), kMac);
  EXPECT_THAT(kernel_.netlink_requests, SizeIs(1));
  EXPECT_THAT(kernel_.frames, IsEmpty());
  EXPECT_EQ(call_count("pthread_create"), 0);
}

TEST_F(NeighborProberTest, UnknownAddressIsSolicitedAndWaitedFor) {
  int receivers_at_sending = 0;
  CallHook hook(wrapped::sendto,
                [&](int, const void*, size_t size, int, const sockaddr*, socklen_t) {
                  // Beside the sending socket and the one for the hardware address.
                  receivers_at_sending = kernel_.count(AF_PACKET, htons(ETH_P_ALL)) - 2;
                  return static_cast<ssize_t>(size);
                });
  virtual_clock::on_sleep([&](auto) {
    if (virtual_clock::sleeps().size() == 2) kernel_.netlink_answers = {entry(kTarget, kMac)};
  });
  EXPECT_EQ(resolve(), kMac);
  EXPECT_EQ(receivers_at_sending, 1);
  EXPECT_THAT(virtual_clock::sleeps(), ElementsAre(1ms, 1ms));
}

TEST_F(NeighborProberTest, WaitingEndsAfterAHundredPauses) {
  EXPECT_EQ(resolve(), std::nullopt);
  EXPECT_THAT(kernel_.frames, SizeIs(1));
  EXPECT_THAT(kernel_.netlink_requests, SizeIs(1 + 101));
  EXPECT_THAT(virtual_clock::sleeps(), SizeIs(100));
  EXPECT_THAT(virtual_clock::sleeps(), Each(1ms));
}

TEST_F(NeighborProberTest, TableThatCannotBeReadIsSolicitedToo) {
  kernel_.netlink_answers = {error_message(-EPERM)};
  EXPECT_EQ(resolve(), std::nullopt);
  EXPECT_THAT(kernel_.frames, SizeIs(1));
  EXPECT_THAT(virtual_clock::sleeps(), SizeIs(100));
}

TEST_F(NeighborProberTest, FailedLockEndsTheProbe) {
  std::optional<MacAddress> mac = kMac;
  {
    Fault no_thread("pthread_create", EAGAIN);
    std::atomic<int> after{0};
    CallHook hook(wrapped::pthread_mutex_lock, [&](pthread_mutex_t* mutex) {
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

TEST_F(NeighborProberTest, FailedUnlockEndsTheProbe) {
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
