// The receiver thread of both probers: how it is started, listens and ends.
#include <fcntl.h>

#include <atomic>

#include "support/link_fixture.h"

using testing::ElementsAre;
using testing::IsEmpty;

namespace {

template <class Kind>
class LinkProberReceiverTest : public LinkFixture<Kind> {
 protected:
  LinkProberReceiverTest() : prober_(this->make_prober()) {}

  static auto logged_start_failure(const char* what) {
    return LoggedError(std::string("<") + Kind::kStarter + "> Can't " + what + " thread for " +
                       Kind::kThread);
  }

  // For the end of the test, when the receiver's socket was the last one.
  void expect_socket_closed() const {
    EXPECT_EQ(fcntl(this->network_.sockets.back().fd, F_GETFD), -1) << "left open";
  }

  std::unique_ptr<typename Kind::Prober> prober_;
};

}  // namespace

TYPED_TEST_SUITE(LinkProberReceiverTest, BothKinds, KindName);

// The start.

TYPED_TEST(LinkProberReceiverTest, LockIsFreeOnceItListens) {
  const int before = this->network_.count(AF_PACKET, TypeParam::receive_protocol());
  // A receiver that takes its time.
  CallHook hook(wrapped::socket, [this](int domain, int type, int protocol) {
    for (int i = 0; i < 1000; ++i) sched_yield();
    return this->network_.open_socket(domain, type, protocol);
  });
  TypeParam::start(*this->prober_);
  ASSERT_EQ(this->prober_->lock_mutex(), 0);
  EXPECT_EQ(this->network_.count(AF_PACKET, TypeParam::receive_protocol()), before + 1);
  EXPECT_EQ(this->prober_->unlock_mutex(), 0);
  this->network_.end_threads();
  EXPECT_THAT(log_records(), IsEmpty());
}

TYPED_TEST(LinkProberReceiverTest, QueueIsEnlargedBeforeItListens) {
  TypeParam::start(*this->prober_);
  ASSERT_EQ(this->prober_->lock_mutex(), 0);
  EXPECT_THAT(this->network_.option_names(this->network_.sockets.back().fd),
              testing::Contains(SO_RCVBUFFORCE));
  this->prober_->unlock_mutex();
}

TYPED_TEST(LinkProberReceiverTest, FailedStartIsNotRepeated) {
  {
    Fault fault("pthread_create", EAGAIN);
    TypeParam::start(*this->prober_);
  }
  EXPECT_THAT(log_records(), ElementsAre(this->logged_start_failure("create new"),
                                         this->logged_start_failure("detach")));
  EXPECT_EQ(this->prober_->lock_mutex(), 0) << "the lock must be free again";
  EXPECT_EQ(this->prober_->unlock_mutex(), 0);
  TypeParam::start(*this->prober_);
  EXPECT_EQ(call_count("pthread_create"), 1);
}

TYPED_TEST(LinkProberReceiverTest, FailedStartWithFailedUnlock) {
  {
    Fault no_thread("pthread_create", EAGAIN);
    BrokenUnlock broken(this->handshake_, EPERM, [] { return call_count("pthread_create") > 0; });
    TypeParam::start(*this->prober_);
  }
  EXPECT_THAT(
      log_records(),
      ElementsAre(this->logged_mutex_failure(TypeParam::kStarter, "unlock", EPERM),
                  this->logged_start_failure("create new"), this->logged_start_failure("detach")));
}

TYPED_TEST(LinkProberReceiverTest, FailedLockStartsNoThread) {
  {
    BrokenLock broken(this->handshake_, EDEADLK);
    TypeParam::start(*this->prober_);
  }
  EXPECT_THAT(log_records(),
              ElementsAre(this->logged_mutex_failure(TypeParam::kStarter, "lock", EDEADLK)));
  EXPECT_EQ(call_count("pthread_create"), 0);
}

TYPED_TEST(LinkProberReceiverTest, FailedDetachingIsLogged) {
  {
    CallHook hook(wrapped::pthread_detach, [](pthread_t thread) {
      wrapped::pthread_detach.real(thread);
      return EINVAL;
    });
    TypeParam::start(*this->prober_);
  }
  EXPECT_THAT(log_records(), ElementsAre(this->logged_start_failure("detach")));
}

TYPED_TEST(LinkProberReceiverTest, FailedUnlockEndsTheThread) {
  {
    const pthread_t starter = pthread_self();
    BrokenUnlock broken(this->handshake_, EPERM,
                        [=] { return pthread_equal(starter, pthread_self()) == 0; });
    TypeParam::start(*this->prober_);
    this->network_.end_threads();
  }
  EXPECT_THAT(log_records(),
              ElementsAre(this->logged_mutex_failure(TypeParam::kReceiver, "unlock", EPERM)));
  EXPECT_EQ(call_count("poll"), 0);
}

// Listening.

TYPED_TEST(LinkProberReceiverTest, ListensOnARawPacketSocketWithoutATimeLimit) {
  std::atomic<int> limit{0};
  std::atomic<int> events{0};
  std::atomic<int> waited_on{-1};
  {
    CallHook hook(wrapped::poll, [&](pollfd* fds, nfds_t count, int timeout) {
      EXPECT_EQ(count, 1u);
      waited_on = fds->fd;
      events = fds->events;
      limit = timeout;
      return 0;
    });
    TypeParam::start(*this->prober_);
    this->network_.end_threads();
  }
  const FakeNetwork::Socket& socket = this->network_.sockets.back();
  EXPECT_EQ(socket.domain, AF_PACKET);
  EXPECT_EQ(socket.type, SOCK_RAW);
  EXPECT_EQ(socket.protocol, TypeParam::receive_protocol());
  EXPECT_EQ(waited_on, socket.fd);
  EXPECT_EQ(events, POLLIN);
  EXPECT_EQ(limit, -1);
}

TYPED_TEST(LinkProberReceiverTest, TakesFramesOfUpTo65535Bytes) {
  std::atomic<size_t> room{0};
  CallHook hook(wrapped::recvfrom, [&](int, void*, size_t size, int, sockaddr*, socklen_t*) {
    room = size;
    errno = ENOMEM;
    return ssize_t{-1};
  });
  this->listen(*this->prober_);
  this->receive({TypeParam::reply()});
  EXPECT_EQ(room, 65535u);
}

TYPED_TEST(LinkProberReceiverTest, AnswerOfAnUnwatchedAddressIsNoted) {
  this->prober_->set_target("192.0.2.1", "192.0.2.2", "eth0");
  this->listen(*this->prober_);
  this->receive({Bytes(20), TypeParam::reply(), TypeParam::reply()});
  EXPECT_EQ(
      this->prober_->targets().snapshot(),
      (WatchedTargets::Map{{{"192.0.2.1", "eth0"}, true}, {{TypeParam::kTarget, "eth0"}, false}}));
  EXPECT_EQ(TypeParam::entries(this->network_), 0u);
}

TYPED_TEST(LinkProberReceiverTest, AnswerOfAWatchedAddressIsEntered) {
  this->prober_->set_target(TypeParam::kTarget, TypeParam::kSource, "eth0");
  this->listen(*this->prober_);
  this->receive({TypeParam::reply()});
  EXPECT_EQ(TypeParam::entries(this->network_), 1u);
}

// Somebody on the LAN who claims the address of an uplink's gateway.
TYPED_TEST(LinkProberReceiverTest, AnswerByAnotherInterfaceIsNotEntered) {
  this->network_.interface_names[8] = "lan0";
  this->network_.arrival_interface = 8;
  this->prober_->set_target(TypeParam::kTarget, TypeParam::kSource, "eth0");
  this->listen(*this->prober_);
  this->receive({TypeParam::reply()});
  EXPECT_EQ(TypeParam::entries(this->network_), 0u);
  EXPECT_EQ(this->prober_->targets().snapshot(),
            (WatchedTargets::Map{{{TypeParam::kTarget, "eth0"}, true},
                                 {{TypeParam::kTarget, "lan0"}, false}}));
}

TYPED_TEST(LinkProberReceiverTest, AnswerByAnInterfaceThatHasGoneIsNotEntered) {
  this->network_.arrival_interface = 9;
  this->prober_->set_target(TypeParam::kTarget, TypeParam::kSource, "eth0");
  this->listen(*this->prober_);
  this->receive({TypeParam::reply()});
  EXPECT_EQ(TypeParam::entries(this->network_), 0u);
}

TYPED_TEST(LinkProberReceiverTest, OutlivesItsProber) {
  this->listen(*this->prober_);
  this->prober_.reset();
  this->receive({TypeParam::reply()});
  EXPECT_EQ(call_count("recvfrom"), 1);
  EXPECT_THAT(log_records(), IsEmpty());
}

TYPED_TEST(LinkProberReceiverTest, InterruptedReceivingGoesOn) {
  Fault fault("recvfrom", EINTR, 0, 3);
  this->listen(*this->prober_);
  this->receive({TypeParam::reply()});
  EXPECT_GE(call_count("recvfrom"), 4);
  EXPECT_THAT(this->prober_->targets().snapshot(), testing::SizeIs(1));
  EXPECT_THAT(log_records(), IsEmpty());
}

// The end.

TYPED_TEST(LinkProberReceiverTest, FailedWaitingEndsTheThread) {
  Fault fault("poll", EINTR);
  TypeParam::start(*this->prober_);
  this->network_.end_threads();
  EXPECT_THAT(log_records(), ElementsAre(LoggedError(TypeParam::kSelectFailed)));
  this->expect_socket_closed();
}

TYPED_TEST(LinkProberReceiverTest, WaitingThatEndsWithoutFramesEndsTheThread) {
  TypeParam::start(*this->prober_);
  this->network_.end_threads();  // poll returns 0
  EXPECT_THAT(log_records(), IsEmpty());
  this->expect_socket_closed();
}

TYPED_TEST(LinkProberReceiverTest, FailedReceivingEndsTheThread) {
  Fault fault("recvfrom", ENOMEM);
  this->listen(*this->prober_);
  this->receive({TypeParam::reply()});
  EXPECT_THAT(log_records(), ElementsAre(LoggedError(TypeParam::kRecvFailed)));
  EXPECT_EQ(call_count("recvfrom"), 1);
}

TYPED_TEST(LinkProberReceiverTest, WithoutSocketGivesTheLockBackForArpAlone) {
  {
    Fault fault("socket", EMFILE);
    TypeParam::start(*this->prober_);
    this->network_.end_threads();
  }
  EXPECT_THAT(log_records(), ElementsAre(LoggedError(std::string("<") + TypeParam::kReceiver +
                                                     "> socket() for _recv_sock failed ")));
  clear_log();
  // A lock that nobody has given back cannot be destroyed.
  errno = 0;
  this->prober_.reset();
  if (std::is_same_v<TypeParam, Arp>) {
    EXPECT_THAT(log_records(), IsEmpty());
  } else {
    EXPECT_THAT(log_records(),
                ElementsAre(this->logged_mutex_failure("~LBNeighbor", "destroy", EBUSY, 0)));
  }
}
