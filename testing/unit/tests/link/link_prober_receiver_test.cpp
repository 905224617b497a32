// What both probers do alike: sockets of a VRF, the handshake lock, the receiver thread.
#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <linux/if_ether.h>

#include <atomic>

#include "support/fake_kernel.h"
#include "support/recorded_log.h"
#include "tests/link/arp_prober.h"
#include "tests/link/neighbor_prober.h"

using testing::ElementsAre;
using testing::IsEmpty;

namespace {

struct Arp {
  using Prober = LBArp;
  static void start(LBArp& prober) { prober.received_arp(); }
  static int receive_protocol() { return htons(ETH_P_ARP); }
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

  static Bytes reply() {
    Bytes frame(42);
    frame[12] = 0x08, frame[13] = 0x06, frame[21] = 2;
    frame[28] = 192, frame[29] = 0, frame[30] = 2, frame[31] = 9;
    return frame;
  }
  static constexpr const char* kSender = "192.0.2.9";
};

struct Neighbor {
  using Prober = LBNeighbor;
  static void start(LBNeighbor& prober) { prober.receive_reply(); }
  static int receive_protocol() { return htons(ETH_P_ALL); }
  static constexpr const char* kMutex = "_neighbor_mutex";
  static constexpr const char* kStarter = "receive_reply";
  static constexpr const char* kReceiver = "recv_neighbor";
  static constexpr const char* kDestructor = "~LBNeighbor";
  static constexpr const char* kThread = "neigh recv";
  static constexpr const char* kSelectFailed = "select() failed";
  static constexpr const char* kRecvFailed = "recv() failed";
  static constexpr const char* kNoSendSocket = "<init> socket() fo _send_sock failed ";
  static constexpr const char* kNoMutex = "wan_lb: error mutex initialization";

  static Bytes reply() {
    Bytes frame(86);
    frame[12] = 0x86, frame[13] = 0xdd, frame[54] = 136;
    frame[62] = 0xfe, frame[63] = 0x80, frame[77] = 9;
    return frame;
  }
  static constexpr const char* kSender = "fe80::9";
};

template <class Kind>
class LinkProberReceiverTest : public testing::Test {
 protected:
  using Prober = typename Kind::Prober;

  static std::string mutex_message(const char* operation, const char* call, int rc, int error) {
    return std::string("<") + operation + "> " + call + " for " + Kind::kMutex +
           " failed!!!!! rc = " + std::to_string(rc) + ", errno = " + std::to_string(error) + " (" +
           std::strerror(error) + ")";
  }

  // Sockets that were opened for receiving; those of the other protocol and kind are left out.
  int receivers() { return kernel_.count(AF_PACKET, Kind::receive_protocol()) - sending_; }

  // A prober of the VRF that is named after the test.
  std::unique_ptr<Prober> make_prober() {
    auto prober = std::make_unique<Prober>();
    prober->init(testing::UnitTest::GetInstance()->current_test_info()->name());
    if (Kind::receive_protocol() == htons(ETH_P_ALL)) ++sending_;
    return prober;
  }

  FakeKernel kernel_;
  int sending_ = 0;
};

// Passes the call on and reports `error` where `fails` says so.
template <class Fails>
auto failing_unlock(Fails fails, int error) {
  return [=](pthread_mutex_t* mutex) {
    const int rc = wrapped::pthread_mutex_unlock.real(mutex);
    return fails() ? error : rc;
  };
}

using Kinds = testing::Types<Arp, Neighbor>;

}  // namespace

TYPED_TEST_SUITE(LinkProberReceiverTest, Kinds);

TYPED_TEST(LinkProberReceiverTest, InitOpensASocketForSending) {
  auto prober = this->make_prober();
  ASSERT_EQ(this->kernel_.opened().size(), 1u);
  const FakeKernel::Opened& opened = this->kernel_.opened()[0];
  EXPECT_EQ(opened.domain, AF_PACKET);
  EXPECT_EQ(opened.type, SOCK_RAW | SOCK_CLOEXEC);
  EXPECT_EQ(opened.protocol, htons(3));
  prober.reset();
  EXPECT_EQ(fcntl(opened.fd, F_GETFD), -1) << "the destructor closes it";
  EXPECT_THAT(log_records(), IsEmpty());
}

TYPED_TEST(LinkProberReceiverTest, InitWithoutSocket) {
  typename TypeParam::Prober prober;
  Fault fault("socket", EMFILE);
  prober.init("no-socket");
  EXPECT_THAT(log_records(), ElementsAre(LoggedError(TypeParam::kNoSendSocket)));
  // The lock works all the same.
  EXPECT_EQ(prober.lock_mutex(), 0);
  EXPECT_EQ(prober.unlock_mutex(), 0);
}

TYPED_TEST(LinkProberReceiverTest, InitWithoutMutex) {
  auto prober = this->make_prober();
  {
    Fault fault("pthread_mutex_init", ENOMEM, 0, 1);
    CallHook hook(wrapped::setsockopt, [](int, int, int, const void*, socklen_t) {
      errno = EAGAIN;
      return 0;
    });
    prober->init("no-mutex");
  }
  EXPECT_THAT(log_records(), ElementsAre(LoggedError(TypeParam::kNoMutex)));
  EXPECT_EQ(prober->lock_mutex(), -1);
  EXPECT_EQ(prober->unlock_mutex(), -1);
}

TYPED_TEST(LinkProberReceiverTest, FailedLockIsLogged) {
  auto prober = this->make_prober();
  int result;
  {
    Fault fault("pthread_mutex_lock", EDEADLK, 0, 1);
    errno = EAGAIN;
    result = prober->lock_mutex();
  }
  EXPECT_EQ(result, -1);
  EXPECT_THAT(log_records(), ElementsAre(LoggedError(this->mutex_message(
                                 "lock_mutex", "pthread_mutex_lock", EDEADLK, EAGAIN))));
  EXPECT_EQ(prober->lock_mutex(), 0);
}

TYPED_TEST(LinkProberReceiverTest, FailedUnlockIsLogged) {
  auto prober = this->make_prober();
  ASSERT_EQ(prober->lock_mutex(), 0);
  int result;
  {
    CallHook hook(wrapped::pthread_mutex_unlock, failing_unlock([] { return true; }, EPERM));
    errno = EAGAIN;
    result = prober->unlock_mutex();
  }
  EXPECT_EQ(result, -1);
  EXPECT_THAT(log_records(), ElementsAre(LoggedError(this->mutex_message(
                                 "unlock_mutex", "pthread_mutex_unlock", EPERM, EAGAIN))));
}

TYPED_TEST(LinkProberReceiverTest, FailedDestructionIsLogged) {
  auto prober = this->make_prober();
  {
    Fault fault("pthread_mutex_destroy", EINVAL, 0, 1);
    errno = EAGAIN;
    prober.reset();
  }
  EXPECT_THAT(log_records(),
              ElementsAre(LoggedError(this->mutex_message(
                  TypeParam::kDestructor, "pthread_mutex_destroy", EINVAL, EAGAIN))));
}

TYPED_TEST(LinkProberReceiverTest, HeldLockCannotBeDestroyed) {
  auto prober = this->make_prober();
  ASSERT_EQ(prober->lock_mutex(), 0);
  errno = 0;
  prober.reset();
  EXPECT_THAT(log_records(), ElementsAre(LoggedError(this->mutex_message(
                                 TypeParam::kDestructor, "pthread_mutex_destroy", EBUSY, 0))));
}

TYPED_TEST(LinkProberReceiverTest, LockIsFreeOnceTheReceiverListens) {
  auto prober = this->make_prober();
  // A receiver that takes its time.
  CallHook hook(wrapped::socket, [this](int domain, int type, int protocol) {
    for (int i = 0; i < 1000; ++i) sched_yield();
    return this->kernel_.open_socket(domain, type, protocol);
  });
  TypeParam::start(*prober);
  ASSERT_EQ(prober->lock_mutex(), 0);
  EXPECT_EQ(this->receivers(), 1);
  EXPECT_EQ(prober->unlock_mutex(), 0);
  this->kernel_.finish_receivers();
  EXPECT_THAT(log_records(), IsEmpty());
}

TYPED_TEST(LinkProberReceiverTest, QueueIsEnlargedBeforeItListens) {
  auto prober = this->make_prober();
  std::atomic<int> enlarged{-1};
  CallHook hook(wrapped::setsockopt, [&](int fd, int, int name, const void*, socklen_t) {
    if (name == SO_RCVBUFFORCE) enlarged = fd;
    return 0;
  });
  TypeParam::start(*prober);
  ASSERT_EQ(prober->lock_mutex(), 0);
  EXPECT_EQ(enlarged, this->kernel_.opened().back().fd);
  prober->unlock_mutex();
  this->kernel_.finish_receivers();
}

TYPED_TEST(LinkProberReceiverTest, IsStartedOncePerVrf) {
  auto prober = this->make_prober();
  auto other = this->make_prober();
  TypeParam::start(*prober);
  TypeParam::start(*prober);
  TypeParam::start(*other);
  EXPECT_EQ(call_count("pthread_create"), 1);
  EXPECT_EQ(call_count("pthread_detach"), 1);
  // Another VRF has a receiver of its own.
  auto elsewhere = this->make_prober();
  elsewhere->init("elsewhere");
  ++this->sending_;
  TypeParam::start(*elsewhere);
  EXPECT_EQ(call_count("pthread_create"), 2);
}

TYPED_TEST(LinkProberReceiverTest, FailedStartIsNotRepeated) {
  auto prober = this->make_prober();
  {
    Fault fault("pthread_create", EAGAIN);
    TypeParam::start(*prober);
  }
  const std::string starter = TypeParam::kStarter;
  EXPECT_THAT(
      log_records(),
      ElementsAre(
          LoggedError("<" + starter + "> Can't create new thread for " + TypeParam::kThread),
          LoggedError("<" + starter + "> Can't detach thread for " + TypeParam::kThread)));
  EXPECT_EQ(prober->lock_mutex(), 0) << "the lock must be free again";
  EXPECT_EQ(prober->unlock_mutex(), 0);
  TypeParam::start(*prober);
  EXPECT_EQ(call_count("pthread_create"), 1);
}

TYPED_TEST(LinkProberReceiverTest, FailedStartWithFailedUnlock) {
  auto prober = this->make_prober();
  {
    Fault no_thread("pthread_create", EAGAIN);
    // From the failed creation on.
    CallHook hook(wrapped::pthread_mutex_unlock,
                  failing_unlock([] { return call_count("pthread_create") > 0; }, EPERM));
    errno = EAGAIN;
    TypeParam::start(*prober);
  }
  const std::string starter = TypeParam::kStarter;
  EXPECT_THAT(
      log_records(),
      ElementsAre(
          LoggedError(
              this->mutex_message(TypeParam::kStarter, "pthread_mutex_unlock", EPERM, EAGAIN)),
          LoggedError("<" + starter + "> Can't create new thread for " + TypeParam::kThread),
          LoggedError("<" + starter + "> Can't detach thread for " + TypeParam::kThread)));
}

TYPED_TEST(LinkProberReceiverTest, FailedLockStartsNoThread) {
  auto prober = this->make_prober();
  {
    // After the lock of the process-wide tables.
    Fault fault("pthread_mutex_lock", EDEADLK, 1, 1);
    errno = EAGAIN;
    TypeParam::start(*prober);
  }
  EXPECT_THAT(log_records(), ElementsAre(LoggedError(this->mutex_message(
                                 TypeParam::kStarter, "pthread_mutex_lock", EDEADLK, EAGAIN))));
  EXPECT_EQ(call_count("pthread_create"), 0);
}

TYPED_TEST(LinkProberReceiverTest, FailedDetachingIsLogged) {
  auto prober = this->make_prober();
  {
    Fault fault("pthread_detach", EINVAL);
    TypeParam::start(*prober);
  }
  EXPECT_THAT(log_records(),
              ElementsAre(LoggedError(std::string("<") + TypeParam::kStarter +
                                      "> Can't detach thread for " + TypeParam::kThread)));
}

TYPED_TEST(LinkProberReceiverTest, FailedUnlockEndsTheThread) {
  auto prober = this->make_prober();
  {
    const pthread_t starter = pthread_self();
    CallHook hook(
        wrapped::pthread_mutex_unlock,
        failing_unlock([=] { return pthread_equal(starter, pthread_self()) == 0; }, EPERM));
    TypeParam::start(*prober);
    this->kernel_.finish_receivers();
  }
  ASSERT_EQ(log_records().size(), 1u);
  EXPECT_THAT(log_texts()[0],
              testing::StartsWith(std::string("%WAN-W-ERR: <") + TypeParam::kReceiver +
                                  "> pthread_mutex_unlock for " + TypeParam::kMutex +
                                  " failed!!!!! rc = 1, errno = "));
  EXPECT_EQ(call_count("poll"), 0);
}

TYPED_TEST(LinkProberReceiverTest, FailedWaitingEndsTheThread) {
  auto prober = this->make_prober();
  Fault fault("poll", EINTR);
  TypeParam::start(*prober);
  this->kernel_.finish_receivers();
  EXPECT_THAT(log_records(), ElementsAre(LoggedError(TypeParam::kSelectFailed)));
  EXPECT_EQ(fcntl(this->kernel_.opened().back().fd, F_GETFD), -1) << "the socket is closed";
}

TYPED_TEST(LinkProberReceiverTest, WaitingThatEndsWithoutFramesEndsTheThread) {
  auto prober = this->make_prober();
  TypeParam::start(*prober);
  this->kernel_.finish_receivers();  // poll returns 0
  EXPECT_THAT(log_records(), IsEmpty());
  EXPECT_EQ(fcntl(this->kernel_.opened().back().fd, F_GETFD), -1) << "the socket is closed";
}

TYPED_TEST(LinkProberReceiverTest, InterruptedReceivingGoesOn) {
  auto prober = this->make_prober();
  Fault fault("recv", EINTR, 0, 3);
  TypeParam::start(*prober);
  ASSERT_EQ(prober->lock_mutex(), 0);
  this->kernel_.deliver(TypeParam::receive_protocol(), TypeParam::reply());
  this->kernel_.finish_receivers();
  EXPECT_GE(call_count("recv"), 4);
  EXPECT_EQ(prober->targets().snapshot().count(TypeParam::kSender), 1u);
  EXPECT_THAT(log_records(), IsEmpty());
  prober->unlock_mutex();
}

TYPED_TEST(LinkProberReceiverTest, FailedReceivingEndsTheThread) {
  auto prober = this->make_prober();
  Fault fault("recv", ENOMEM);
  TypeParam::start(*prober);
  ASSERT_EQ(prober->lock_mutex(), 0);
  this->kernel_.deliver(TypeParam::receive_protocol(), TypeParam::reply());
  this->kernel_.finish_receivers();
  EXPECT_THAT(log_records(), ElementsAre(LoggedError(TypeParam::kRecvFailed)));
  EXPECT_EQ(call_count("recv"), 1);
  prober->unlock_mutex();
}

TYPED_TEST(LinkProberReceiverTest, OutlivesItsProber) {
  auto prober = this->make_prober();
  TypeParam::start(*prober);
  ASSERT_EQ(prober->lock_mutex(), 0);
  prober->unlock_mutex();
  prober.reset();
  this->kernel_.deliver(TypeParam::receive_protocol(), TypeParam::reply());
  this->kernel_.finish_receivers();
  EXPECT_EQ(call_count("recv"), 1);
  EXPECT_THAT(log_records(), IsEmpty());
}

TYPED_TEST(LinkProberReceiverTest, AnswerOfAnUnwatchedAddressLeavesAnEmptyEntry) {
  auto prober = this->make_prober();
  prober->set_target("192.0.2.1", "192.0.2.2", "eth0");
  TypeParam::start(*prober);
  ASSERT_EQ(prober->lock_mutex(), 0);
  prober->unlock_mutex();
  this->kernel_.deliver(TypeParam::receive_protocol(), Bytes(20));
  this->kernel_.deliver(TypeParam::receive_protocol(), TypeParam::reply());
  this->kernel_.deliver(TypeParam::receive_protocol(), TypeParam::reply());
  this->kernel_.finish_receivers();
  EXPECT_THAT(prober->targets().snapshot(), ElementsAre(testing::Pair("192.0.2.1", "eth0"),
                                                        testing::Pair(TypeParam::kSender, "")));
  EXPECT_TRUE(this->kernel_.arp_entries.empty());
  EXPECT_TRUE(this->kernel_.netlink_requests.empty());
}

TYPED_TEST(LinkProberReceiverTest, TargetsAreOverwrittenAndNeverRemoved) {
  auto prober = this->make_prober();
  prober->set_target("a", "s", "eth0");
  prober->set_target("b", "s", "eth1");
  prober->set_target("a", "s", "eth2");
  EXPECT_THAT(prober->targets().snapshot(),
              ElementsAre(testing::Pair("a", "eth2"), testing::Pair("b", "eth1")));
}

TEST(LinkProberReceiverArpTest, WithoutSocketGivesTheLockBack) {
  FakeKernel kernel;
  LBArp prober;
  prober.init("arp-no-receiver");
  {
    Fault fault("socket", EMFILE);
    prober.received_arp();
    kernel.finish_receivers();
  }
  EXPECT_THAT(log_records(),
              ElementsAre(LoggedError("<recv_arp> socket() for _recv_sock failed ")));
  EXPECT_EQ(prober.lock_mutex(), 0);
  EXPECT_EQ(prober.unlock_mutex(), 0);
}

TEST(LinkProberReceiverNeighborTest, WithoutSocketKeepsTheLock) {
  FakeKernel kernel;
  {
    LBNeighbor prober;
    prober.init("neighbor-no-receiver");
    {
      Fault fault("socket", EMFILE);
      prober.receive_reply();
      kernel.finish_receivers();
    }
    EXPECT_THAT(log_records(),
                ElementsAre(LoggedError("<recv_neighbor> socket() for _recv_sock failed ")));
    clear_log();
    errno = 0;
  }
  // Nobody gave the lock back: it cannot be destroyed.
  EXPECT_THAT(log_texts(),
              ElementsAre("%WAN-W-ERR: <~LBNeighbor> pthread_mutex_destroy for _neighbor_mutex "
                          "failed!!!!! rc = 16, errno = 0 (Success)"));
}

TEST(LinkProberReceiverNeighborTest, KernelFilterPassesAdvertisementsOnly) {
  FakeKernel kernel;
  const FileDescriptor fd = kNeighborProtocol.open_receiver();
  ASSERT_TRUE(fd.valid());
  const auto passes = [&](const Bytes& frame) {
    kernel.deliver(htons(ETH_P_ALL), frame);
    Bytes buffer(2000);
    return recv(fd.get(), buffer.data(), buffer.size(), MSG_DONTWAIT) ==
           static_cast<ssize_t>(frame.size());
  };
  EXPECT_TRUE(passes(Neighbor::reply()));
  Bytes long_frame = Neighbor::reply();
  long_frame.resize(1500);
  EXPECT_TRUE(passes(long_frame)) << "must come uncut";
  EXPECT_FALSE(passes(Arp::reply()));
  Bytes solicitation = Neighbor::reply();
  solicitation[54] = 135;
  EXPECT_FALSE(passes(solicitation));
  Bytes ipv4 = Neighbor::reply();
  ipv4[12] = 0x08, ipv4[13] = 0x00;
  EXPECT_FALSE(passes(ipv4));
  EXPECT_FALSE(passes(Bytes(54, 0x86)));
  EXPECT_FALSE(passes(Bytes(1)));
}

TEST(LinkProberReceiverNeighborTest, WorksWithoutKernelFilter) {
  FakeKernel kernel;
  Fault fault("setsockopt", EPERM);
  LBNeighbor prober;
  prober.init("neighbor-no-filter");
  prober.receive_reply();
  ASSERT_EQ(prober.lock_mutex(), 0);
  kernel.deliver(htons(ETH_P_ALL), Arp::reply());
  kernel.deliver(htons(ETH_P_ALL), Neighbor::reply());
  kernel.finish_receivers();
  EXPECT_THAT(prober.targets().snapshot(), ElementsAre(testing::Pair("fe80::9", "")));
  prober.unlock_mutex();
}
