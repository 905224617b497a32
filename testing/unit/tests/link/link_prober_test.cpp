// What both probers do alike in their worker: the socket and the lock of a VRF, its
// receiver, and the addresses that are waited for.
#include "tests/link/link_prober.h"

#include <dirent.h>
#include <fcntl.h>

#include "support/link_fixture.h"

using testing::ElementsAre;
using testing::IsEmpty;
using testing::SizeIs;

namespace {

template <class Kind>
class LinkProberTest : public LinkFixture<Kind> {
 protected:
  LinkProberTest() : prober_(this->make_prober()) {}

  std::unique_ptr<typename Kind::Prober> prober_;
};

int open_descriptors() {
  int count = 0;
  DIR* const directory = opendir("/proc/self/fd");
  while (readdir(directory) != nullptr) ++count;
  closedir(directory);
  return count;
}

}  // namespace

TYPED_TEST_SUITE(LinkProberTest, BothKinds, KindName);

TYPED_TEST(LinkProberTest, InitOpensASocketForSending) {
  ASSERT_EQ(this->network_.sockets.size(), 1u);
  const FakeNetwork::Socket& opened = this->network_.sockets[0];
  EXPECT_EQ(opened.domain, AF_PACKET);
  EXPECT_EQ(opened.type, SOCK_RAW);
  EXPECT_EQ(opened.protocol, 0) << "or it would see every packet";
  EXPECT_TRUE(opened.close_on_exec);
  this->prober_.reset();
  EXPECT_EQ(fcntl(opened.fd, F_GETFD), -1) << "the destructor closes it";
  EXPECT_THAT(log_records(), IsEmpty());
}

TYPED_TEST(LinkProberTest, InitWithoutSocket) {
  typename TypeParam::Prober prober;
  Fault fault("socket", EMFILE);
  prober.init("no-socket");
  EXPECT_THAT(log_records(), ElementsAre(LoggedError(TypeParam::kNoSendSocket)));
  // The lock works all the same.
  EXPECT_EQ(prober.lock_mutex(), 0);
  EXPECT_EQ(prober.unlock_mutex(), 0);
}

TYPED_TEST(LinkProberTest, InitWithoutMutex) {
  {
    Fault fault("pthread_mutex_init", ENOMEM);
    CallHook hook(wrapped::socket, [this](int domain, int type, int protocol) {
      const int fd = this->network_.open_socket(domain, type, protocol);
      errno = EAGAIN;
      return fd;
    });
    this->prober_->init("no-mutex");
  }
  EXPECT_THAT(log_records(), ElementsAre(LoggedError(TypeParam::kNoMutex)));
  EXPECT_EQ(this->prober_->lock_mutex(), -1);
  EXPECT_EQ(this->prober_->unlock_mutex(), -1);
}

// The lock.

TYPED_TEST(LinkProberTest, FailedLockIsLogged) {
  int result = 0;
  {
    BrokenLock broken(this->handshake_, EDEADLK);
    result = this->prober_->lock_mutex();
  }
  EXPECT_EQ(result, -1);
  EXPECT_THAT(log_records(),
              ElementsAre(this->logged_mutex_failure("lock_mutex", "lock", EDEADLK)));
  EXPECT_EQ(this->prober_->lock_mutex(), 0);
}

TYPED_TEST(LinkProberTest, FailedUnlockIsLogged) {
  ASSERT_EQ(this->prober_->lock_mutex(), 0);
  int result = 0;
  {
    BrokenUnlock broken(this->handshake_, EPERM);
    result = this->prober_->unlock_mutex();
  }
  EXPECT_EQ(result, -1);
  EXPECT_THAT(log_records(),
              ElementsAre(this->logged_mutex_failure("unlock_mutex", "unlock", EPERM)));
}

TYPED_TEST(LinkProberTest, FailedDestructionIsLogged) {
  {
    CallHook hook(wrapped::pthread_mutex_destroy, [this](pthread_mutex_t* mutex) {
      if (mutex != this->handshake_) return wrapped::pthread_mutex_destroy.real(mutex);
      errno = EAGAIN;
      return EINVAL;
    });
    this->prober_.reset();
  }
  EXPECT_THAT(log_records(),
              ElementsAre(this->logged_mutex_failure(TypeParam::kDestructor, "destroy", EINVAL)));
}

TYPED_TEST(LinkProberTest, HeldLockCannotBeDestroyed) {
  ASSERT_EQ(this->prober_->lock_mutex(), 0);
  errno = 0;
  this->prober_.reset();
  EXPECT_THAT(log_records(),
              ElementsAre(this->logged_mutex_failure(TypeParam::kDestructor, "destroy", EBUSY, 0)));
}

// The receivers of a VRF.

TYPED_TEST(LinkProberTest, ReceiverIsStartedOncePerVrf) {
  const auto other = this->make_prober();
  TypeParam::start(*this->prober_);
  TypeParam::start(*this->prober_);
  TypeParam::start(*other);
  EXPECT_EQ(call_count("pthread_create"), 1);
  EXPECT_EQ(call_count("pthread_detach"), 1);
  typename TypeParam::Prober elsewhere;
  elsewhere.init("elsewhere");
  TypeParam::start(elsewhere);
  EXPECT_EQ(call_count("pthread_create"), 2);
  this->network_.end_threads();
}

// A worker that is started anew is not left without a receiver.
TYPED_TEST(LinkProberTest, InitialisingTheVrfAgainAllowsAnotherReceiver) {
  TypeParam::start(*this->prober_);
  EXPECT_EQ(call_count("pthread_create"), 1);
  const auto second = this->make_prober();
  TypeParam::start(*second);
  EXPECT_EQ(call_count("pthread_create"), 2);
  TypeParam::start(*this->prober_);
  EXPECT_EQ(call_count("pthread_create"), 2);
  this->network_.end_threads();
}

TYPED_TEST(LinkProberTest, FailedInitialisingDoesNot) {
  TypeParam::start(*this->prober_);
  typename TypeParam::Prober second;
  {
    Fault fault("socket", EMFILE);
    second.init(this->vrf());
  }
  TypeParam::start(second);
  EXPECT_EQ(call_count("pthread_create"), 1);
  this->network_.end_threads();
}

// Watched targets.

TYPED_TEST(LinkProberTest, TargetsAreAddedAndNeverRemoved) {
  this->prober_->set_target("a", "s", "eth0");
  this->prober_->set_target("b", "s", "eth1");
  this->prober_->set_target("a", "s", "eth2");
  EXPECT_EQ(
      this->prober_->targets().snapshot(),
      (WatchedTargets::Map{{{"a", "eth0"}, true}, {{"a", "eth2"}, true}, {{"b", "eth1"}, true}}));
}

TYPED_TEST(LinkProberTest, OtherFramesChangeNothing) {
  this->prober_->set_target(TypeParam::kTarget, TypeParam::kSource, "eth0");
  Bytes request = TypeParam::reply();
  request[TypeParam::kOperation] = TypeParam::kRequestCode;
  EXPECT_TRUE(this->handle(*this->prober_, request));
  Bytes other_type = TypeParam::reply();
  other_type[13] ^= 0x06;
  EXPECT_TRUE(this->handle(*this->prober_, other_type));
  EXPECT_TRUE(this->handle(*this->prober_, {}));
  EXPECT_THAT(this->prober_->targets().snapshot(), SizeIs(1));
  EXPECT_TRUE(this->handle(*this->prober_, TypeParam::reply(7)));  // nobody watches it
  EXPECT_EQ(TypeParam::entries(this->network_), 0u);
  EXPECT_EQ(this->prober_->targets().snapshot(),
            (WatchedTargets::Map{{{TypeParam::kTarget, "eth0"}, true},
                                 {{TypeParam::kOther, "eth0"}, false}}));
}

TYPED_TEST(LinkProberTest, AnswerByAnotherInterfaceIsNotEntered) {
  this->network_.interface_names[8] = "lan0";
  this->prober_->set_target(TypeParam::kTarget, TypeParam::kSource, "eth0");
  EXPECT_TRUE(this->handle(*this->prober_, TypeParam::reply(), 8));
  EXPECT_EQ(TypeParam::entries(this->network_), 0u);
  EXPECT_TRUE(this->handle(*this->prober_, TypeParam::reply(), 7));
  EXPECT_EQ(TypeParam::entries(this->network_), 1u);
}

// Providers whose gateways have the same address: fe80::1 is the usual one.
TYPED_TEST(LinkProberTest, GatewaysOfTheSameAddressTakeTheirOwnAnswers) {
  this->network_.interface_names[8] = "eth1";
  this->prober_->set_target(TypeParam::kTarget, TypeParam::kSource, "eth0");
  this->prober_->set_target(TypeParam::kTarget, TypeParam::kSource, "eth1");
  EXPECT_TRUE(this->handle(*this->prober_, TypeParam::reply(), 8));
  EXPECT_TRUE(this->handle(*this->prober_, TypeParam::reply(), 7));
  EXPECT_THAT(TypeParam::interfaces_of_entries(this->network_), ElementsAre("eth1", "eth0"));
}

// What makes an address none of a station.
TYPED_TEST(LinkProberTest, GroupsAndNobodyAreNotEntered) {
  this->prober_->set_target(TypeParam::kTarget, TypeParam::kSource, "eth0");
  Bytes group = TypeParam::reply();
  group[TypeParam::kHardwareAddress] |= 1;
  EXPECT_TRUE(this->handle(*this->prober_, group));
  Bytes nobody = TypeParam::reply();
  std::fill_n(nobody.begin() + TypeParam::kHardwareAddress, 6, 0);
  EXPECT_TRUE(this->handle(*this->prober_, nobody));
  Bytes broadcast = TypeParam::reply();
  std::fill_n(broadcast.begin() + TypeParam::kHardwareAddress, 6, 0xff);
  EXPECT_TRUE(this->handle(*this->prober_, broadcast));
  EXPECT_EQ(TypeParam::entries(this->network_), 0u);
}

// The sending socket.

TYPED_TEST(LinkProberTest, SocketThatInitCouldNotOpenIsOpenedByTheFirstRequest) {
  {
    Fault fault("socket", EMFILE);
    this->prober_->init(this->vrf());
  }
  clear_log();
  this->prober_->set_target(TypeParam::kTarget, TypeParam::kSource, "eth0");
  TypeParam::request(*this->prober_);
  ASSERT_THAT(this->network_.sent, SizeIs(1));
  EXPECT_EQ(this->network_.sent[0].fd, this->network_.sockets.back().fd);
  TypeParam::request(*this->prober_);
  ASSERT_THAT(this->network_.sent, SizeIs(2));
  EXPECT_EQ(this->network_.sent[1].fd, this->network_.sent[0].fd) << "and kept";
  EXPECT_THAT(log_records(), IsEmpty());
}

// Each operation closes what it opens, whether it succeeds or fails.
TYPED_TEST(LinkProberTest, NothingIsLeftOpen) {
  this->prober_->set_target(TypeParam::kTarget, TypeParam::kSource, "eth0");
  const auto run = [&] {
    // The fake network keeps the far end of each socket.
    const auto opened_before = static_cast<int>(this->network_.sockets.size());
    const int before = open_descriptors();
    {
      CapturedStderr output;  // holds descriptors itself
      TypeParam::request(*this->prober_);
    }
    if constexpr (std::is_same_v<TypeParam, Arp>) {
      MacAddress mac;
      this->prober_->check_arp_exist();
      this->prober_->get_mac(mac);
    }
    const auto opened = static_cast<int>(this->network_.sockets.size()) - opened_before;
    return open_descriptors() - before - opened;
  };
  run();  // what it asks through is kept
  EXPECT_EQ(run(), 0);
  TypeParam::learn(this->network_);
  EXPECT_EQ(run(), 0);
  this->network_.ioctl_errors = {{SIOCGARP, ENODEV}, {SIOCGIFHWADDR, EPERM}};
  EXPECT_EQ(run(), 0);
}
