// A prober's sockets and receiver from start to end: started anew with a VRF's next prober, how the
// receiver listens, what ends it, and that nothing is left open.
#include <dirent.h>
#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <linux/if_ether.h>

#include "support/fake_kernel.h"
#include "support/recorded_log.h"
#include "support/route_answers.h"
#include "support/virtual_clock/virtual_clock.h"
#include "tests/link/arp_prober.h"
#include "tests/link/neighbor_prober.h"

using testing::ElementsAre;
using testing::IsEmpty;

namespace {

struct Arp {
  using Prober = LBArp;
  static void start(LBArp& prober) { prober.received_arp(); }
  static void request(LBArp& prober) { prober.send_arp(); }
  static int receive_protocol() { return htons(0x0806); }
  static constexpr const char* kTarget = "192.0.2.9";
  static constexpr const char* kSource = "192.0.2.1";

  static Bytes reply() {
    Bytes frame(42);
    frame[12] = 0x08, frame[13] = 0x06, frame[21] = 2;
    frame[28] = 192, frame[29] = 0, frame[30] = 2, frame[31] = 9;
    return frame;
  }
};

struct Neighbor {
  using Prober = LBNeighbor;
  static void start(LBNeighbor& prober) { prober.receive_reply(); }
  static void request(LBNeighbor& prober) { prober.send_solicit(); }
  static int receive_protocol() { return htons(0x0003); }
  static constexpr const char* kTarget = "fe80::9";
  static constexpr const char* kSource = "fe80::1";

  static Bytes reply(uint8_t last_byte_of_target = 9) {
    Bytes frame(86);
    frame[12] = 0x86, frame[13] = 0xdd, frame[54] = 136;
    frame[62] = 0xfe, frame[63] = 0x80, frame[77] = last_byte_of_target;
    return frame;
  }
};

template <class Kind>
class LinkProberTest : public testing::Test {
 protected:
  LinkProberTest() { kernel_.netlink_answers = {error_message(0)}; }

  static std::string vrf() { return testing::UnitTest::GetInstance()->current_test_info()->name(); }

  std::unique_ptr<typename Kind::Prober> make_prober() {
    auto prober = std::make_unique<typename Kind::Prober>();
    prober->init(vrf());
    prober->set_target(Kind::kTarget, Kind::kSource, "eth0");
    return prober;
  }

  FakeKernel kernel_;
};

int open_descriptors() {
  int count = 0;
  DIR* const directory = opendir("/proc/self/fd");
  while (readdir(directory) != nullptr) ++count;
  closedir(directory);
  return count;
}

using Kinds = testing::Types<Arp, Neighbor>;

}  // namespace

TYPED_TEST_SUITE(LinkProberTest, Kinds);

// A worker that is started anew is not left without a receiver.
TYPED_TEST(LinkProberTest, InitialisingTheVrfAgainAllowsAnotherReceiver) {
  auto first = this->make_prober();
  TypeParam::start(*first);
  EXPECT_EQ(call_count("pthread_create"), 1);
  auto second = this->make_prober();
  TypeParam::start(*second);
  EXPECT_EQ(call_count("pthread_create"), 2);
  TypeParam::start(*first);
  EXPECT_EQ(call_count("pthread_create"), 2);
}

TYPED_TEST(LinkProberTest, FailedInitialisingDoesNot) {
  auto first = this->make_prober();
  TypeParam::start(*first);
  typename TypeParam::Prober second;
  {
    Fault fault("socket", EMFILE);
    second.init(this->vrf());
  }
  TypeParam::start(second);
  EXPECT_EQ(call_count("pthread_create"), 1);
}

TYPED_TEST(LinkProberTest, ReceiverListensOnARawPacketSocketWithoutATimeLimit) {
  auto prober = this->make_prober();
  std::atomic<int> limit{0};
  std::atomic<int> events{0};
  std::atomic<int> waited_on{-1};
  CallHook hook(wrapped::poll, [&](pollfd* fds, nfds_t count, int timeout) {
    EXPECT_EQ(count, 1u);
    waited_on = fds->fd;
    events = fds->events;
    limit = timeout;
    return 0;
  });
  TypeParam::start(*prober);
  this->kernel_.finish_receivers();
  const FakeKernel::Opened& socket = this->kernel_.opened().back();
  EXPECT_EQ(socket.domain, AF_PACKET);
  EXPECT_EQ(socket.type & ~SOCK_CLOEXEC, SOCK_RAW);
  EXPECT_EQ(socket.protocol, TypeParam::receive_protocol());
  EXPECT_EQ(waited_on, socket.fd);
  EXPECT_EQ(events, POLLIN);
  EXPECT_EQ(limit, -1);
}

TYPED_TEST(LinkProberTest, ReceiverTakesFramesOfUpTo65535Bytes) {
  auto prober = this->make_prober();
  std::atomic<size_t> room{0};  // of the first read: the kernel's answers are read too
  CallHook hook(wrapped::recv, [&](int fd, void* data, size_t size, int flags) {
    size_t none = 0;
    room.compare_exchange_strong(none, size);
    return wrapped::recv.real(fd, data, size, flags);
  });
  TypeParam::start(*prober);
  ASSERT_EQ(prober->lock_mutex(), 0);
  prober->unlock_mutex();
  this->kernel_.deliver(TypeParam::receive_protocol(), TypeParam::reply());
  this->kernel_.finish_receivers();
  EXPECT_EQ(room, 65535u);
}

// Each operation closes what it opens, whether it succeeds or fails.
TYPED_TEST(LinkProberTest, NothingIsLeftOpen) {
  const auto prober = this->make_prober();
  const auto run = [&] {
    // The fake kernel keeps the far end of each socket.
    const auto opened_before = static_cast<int>(this->kernel_.opened().size());
    const int before = open_descriptors();
    {
      CapturedStderr output;  // holds descriptors itself
      TypeParam::request(*prober);
    }
    if constexpr (std::is_same_v<TypeParam, Arp>) {
      MacAddress mac;
      prober->check_arp_exist();
      prober->get_mac(mac);
    }
    const auto opened = static_cast<int>(this->kernel_.opened().size()) - opened_before;
    EXPECT_GT(opened, 0);
    return open_descriptors() - before - opened;
  };
  EXPECT_EQ(run(), 0);
  this->kernel_.arp_query_error = 0;
  EXPECT_EQ(run(), 0);
  this->kernel_.arp_query_error = ENODEV;
  this->kernel_.hardware_address_error = EPERM;
  EXPECT_EQ(run(), 0);
}

TEST(LinkProberNeighborTest, AdvertisementWithoutTextEndsTheReceiver) {
  FakeKernel kernel;
  LBNeighbor prober;
  prober.init("neighbor-no-text");
  prober.receive_reply();
  ASSERT_EQ(prober.lock_mutex(), 0);
  prober.unlock_mutex();
  CapturedStderr output;
  Fault fault("inet_ntop", ENOSPC, 0, 1);
  kernel.deliver(Neighbor::receive_protocol(), Neighbor::reply(1));
  kernel.deliver(Neighbor::receive_protocol(), Neighbor::reply(2));
  kernel.finish_receivers();
  EXPECT_EQ(output.text(), "inet_ntop() failed.\nError message: No space left on device");
  EXPECT_EQ(call_count("recv"), 1);
  EXPECT_THAT(prober.targets().snapshot(), IsEmpty());
  EXPECT_EQ(fcntl(kernel.opened().back().fd, F_GETFD), -1) << "the socket is closed";
  EXPECT_THAT(log_records(), IsEmpty());
}

// What the kernel refuses is no reason to stop listening.
TEST(LinkProberNeighborTest, RefusedEntryIsFollowedByTheNext) {
  FakeKernel kernel;
  kernel.netlink_answers = {error_message(-EEXIST)};
  LBNeighbor prober;
  prober.init("neighbor-refused");
  prober.set_target("fe80::1", "fe80::9", "eth0");
  prober.set_target("fe80::2", "fe80::9", "eth0");
  prober.receive_reply();
  ASSERT_EQ(prober.lock_mutex(), 0);
  prober.unlock_mutex();
  kernel.deliver(Neighbor::receive_protocol(), Neighbor::reply(1));
  kernel.deliver(Neighbor::receive_protocol(), Neighbor::reply(2));
  kernel.finish_receivers();
  EXPECT_THAT(kernel.netlink_requests, testing::SizeIs(2));
  EXPECT_THAT(log_records(), ElementsAre(LoggedError("RTNETLINK answers: File exists\n"),
                                         LoggedError("RTNETLINK answers: File exists\n")));
}
