// The receiver thread of an interface: what it does with replies, and how it ends and comes back.
#include "tests/io/reply_receiver.h"

#include <fcntl.h>
#include <sys/resource.h>

#include <random>

#include "support/echo_fixture.h"

using testing::Contains;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::Not;

namespace {

template <class IpVersion>
class ReplyReceiverTest : public EchoFixture<IpVersion> {
 protected:
  using Packet = FakeNetwork::Bytes;

  void start() {
    ensure_receiver(IpVersion::kFamily, this->ifname_);
    socket_ = this->network_.socket_of(this->sockets()->recv_socket.get());
  }

  void deliver(const Packet& packet) { FakeNetwork::deliver(socket_, packet); }

  bool is_answered(const char* target) { return this->probe_to(target)->probe.state == 0; }

  // True once everything delivered so far has been handled: a marker behind it was.
  bool handled() {
    const int32_t key = this->enter_probe("marker");
    deliver(EchoKit<IpVersion>::reply(static_cast<uint32_t>(key)));
    const bool done = wait_until([&] { return is_answered("marker"); });
    this->probes().erase(key);
    return done;
  }

  bool wait_for_end() {
    return wait_until([&] { return this->network_.live_threads() == 0; });
  }

  ~ReplyReceiverTest() override {
    this->network_.end_threads();
    while (const auto left = this->probe_to("probe")) this->probes().erase(left->key);
  }

  FakeNetwork::Socket socket_;
};

}  // namespace

TYPED_TEST_SUITE(ReplyReceiverTest, BothFamilies, FamilyName);

TYPED_TEST(ReplyReceiverTest, MarksTheProbeOfAReply) {
  const int32_t key = this->enter_probe("probe");
  this->start();
  EXPECT_FALSE(this->is_answered("probe"));
  this->deliver(EchoKit<TypeParam>::reply(static_cast<uint32_t>(key)));
  EXPECT_TRUE(wait_until([&] { return this->is_answered("probe"); }));
  EXPECT_THAT(log_records(), IsEmpty());
}

// What a hostile neighbour sends must not push replies out.
TYPED_TEST(ReplyReceiverTest, EnlargesTheQueueThatItReads) {
  const int fd = this->sockets()->recv_socket.get();
  EXPECT_THAT(this->network_.option_names(fd), Not(Contains(SO_RCVBUFFORCE)));
  this->start();
  ASSERT_TRUE(this->handled());
  EXPECT_THAT(this->network_.option_names(fd), Contains(SO_RCVBUFFORCE));
}

TYPED_TEST(ReplyReceiverTest, DropsEveryOtherType) {
  using Kit = EchoKit<TypeParam>;
  const int32_t key = this->enter_probe("probe");
  this->start();
  for (int type = 0; type < 256; ++type) {
    if (type == (TypeParam::kFamily.ipv6 ? 129 : 0)) continue;
    this->deliver(Kit::reply(static_cast<uint32_t>(key), static_cast<uint8_t>(type)));
  }
  ASSERT_TRUE(this->handled());
  EXPECT_FALSE(this->is_answered("probe"));
  EXPECT_THAT(log_records(), IsEmpty());
}

TYPED_TEST(ReplyReceiverTest, DropsUnknownKeys) {
  using Kit = EchoKit<TypeParam>;
  const auto key = static_cast<uint32_t>(this->enter_probe("probe"));
  const size_t size = this->probes().size();
  this->start();
  for (int bit = 0; bit < 32; ++bit) this->deliver(Kit::reply(key ^ (1u << bit)));
  this->deliver(Kit::reply(key + 32767));
  ASSERT_TRUE(this->handled());
  EXPECT_FALSE(this->is_answered("probe"));
  EXPECT_EQ(this->probes().size(), size);
}

// A short packet ends in no key; it must not be completed from what an earlier one left behind.
TYPED_TEST(ReplyReceiverTest, DropsRepliesThatAreCutShort) {
  const int32_t key = this->enter_probe("probe");
  this->start();
  const auto whole = EchoKit<TypeParam>::reply(static_cast<uint32_t>(key));
  for (size_t length = 1; length < whole.size(); ++length) {
    this->deliver({whole.begin(), whole.begin() + static_cast<long>(length)});
  }
  ASSERT_TRUE(this->handled());
  EXPECT_FALSE(this->is_answered("probe"));
}

TYPED_TEST(ReplyReceiverTest, ShortReplyHasNoKeyOfZero) {
  const int32_t previous = this->probes().next_key();
  this->make_next_key(0);
  ASSERT_EQ(this->enter_probe("probe"), 0);
  this->make_next_key(previous == 32766 ? 1 : previous + 1);
  this->start();
  auto packet = EchoKit<TypeParam>::reply(0);
  packet.resize(packet.size() - 4);
  this->deliver(packet);
  ASSERT_TRUE(this->handled());
  EXPECT_FALSE(this->is_answered("probe"));
}

TYPED_TEST(ReplyReceiverTest, RandomPacketsChangeNothing) {
  using Kit = EchoKit<TypeParam>;
  const auto key = static_cast<uint32_t>(this->enter_probe("probe"));
  const size_t size = this->probes().size();
  this->start();
  std::mt19937 random(33);
  for (int round = 0; round < 3000; ++round) {
    FakeNetwork::Bytes packet(1 + random() % 80);
    for (uint8_t& byte : packet) byte = static_cast<uint8_t>(random());
    const size_t offset = TypeParam::kFamily.ipv6 ? 8 : 28;
    if (packet.size() >= offset + 4 && word_at(packet, offset) == key) continue;
    this->deliver(packet);
  }
  this->deliver(Kit::reply(0xffffffff));
  ASSERT_TRUE(this->handled());
  EXPECT_FALSE(this->is_answered("probe"));
  EXPECT_EQ(this->probes().size(), size);
  EXPECT_THAT(log_records(), IsEmpty());
}

TYPED_TEST(ReplyReceiverTest, TakesPacketsOfUpTo65535Bytes) {
  const int32_t key = this->enter_probe("probe");
  size_t asked = 0;
  CallHook hook(wrapped::recv, [&](int fd, void* data, size_t size, int flags) {
    asked = size;
    return wrapped::recv.real(fd, data, size, flags);
  });
  this->start();
  auto packet = EchoKit<TypeParam>::reply(static_cast<uint32_t>(key));
  packet.resize(65535, 0xa5);
  this->deliver(packet);
  EXPECT_TRUE(wait_until([&] { return this->is_answered("probe"); }));
  this->network_.end_threads();
  EXPECT_EQ(asked, 65535u);
}

TYPED_TEST(ReplyReceiverTest, OneThreadPerInterface) {
  this->start();
  ensure_receiver(TypeParam::kFamily, this->ifname_);
  ensure_receiver(TypeParam::kFamily, this->ifname_);
  EXPECT_EQ(call_count("pthread_create"), 1);
  EXPECT_EQ(call_count("pthread_detach"), 1);
  EXPECT_NE(this->sockets()->receiver_state, ReceiverState::kAbsent);
}

TYPED_TEST(ReplyReceiverTest, WaitsWithoutATimeLimit) {
  std::atomic<int> limit{0};
  std::atomic<int> events{0};
  {
    CallHook hook(wrapped::poll, [&](pollfd* fds, nfds_t count, int timeout) {
      EXPECT_EQ(count, 1u);
      events = fds->events;
      limit = timeout;
      return wrapped::poll.real(fds, count, timeout);
    });
    this->start();
    EXPECT_TRUE(wait_until([&] { return limit != 0; }));
    this->network_.end_threads();
  }
  EXPECT_EQ(limit, -1);
  EXPECT_EQ(events, POLLIN);
}

TYPED_TEST(ReplyReceiverTest, EndsWhenReadingFails) {
  const std::string family = TypeParam::kFamily.name;
  Fault fault("recv", ENETDOWN);
  this->start();
  this->deliver({1});
  ASSERT_TRUE(this->wait_for_end());
  EXPECT_THAT(log_records(), ElementsAre(LoggedError("recv for " + family + " failed!!!!!")));
  EXPECT_EQ(this->sockets()->receiver_state, ReceiverState::kAbsent);
}

TYPED_TEST(ReplyReceiverTest, EndsWhenNothingIsRead) {
  const std::string family = TypeParam::kFamily.name;
  this->start();
  ::shutdown(this->socket_.peer, SHUT_RDWR);
  ASSERT_TRUE(this->wait_for_end());
  EXPECT_THAT(log_records(), ElementsAre(LoggedError("recv for " + family + " failed!!!!!")));
  EXPECT_EQ(this->sockets()->receiver_state, ReceiverState::kAbsent);
}

TYPED_TEST(ReplyReceiverTest, EndsWhenTheWaitIsOverWithNothing) {
  const std::string family = TypeParam::kFamily.name;
  CallHook hook(wrapped::poll, [](pollfd*, nfds_t, int) { return 0; });
  this->start();
  ASSERT_TRUE(this->wait_for_end());
  EXPECT_THAT(log_records(), ElementsAre(LoggedError("select for " + family + " failed!!!!!")));
  EXPECT_EQ(this->sockets()->receiver_state, ReceiverState::kAbsent);
}

TYPED_TEST(ReplyReceiverTest, FailedWaitEndsIpv4OnlyIpv6ReadsOn) {
  const int32_t key = this->enter_probe("probe");
  Fault fault("poll", EINTR, 0, 1);
  this->start();
  if (TypeParam::kFamily.ipv6) {
    this->deliver(EchoKit<TypeParam>::reply(static_cast<uint32_t>(key)));
    EXPECT_TRUE(wait_until([&] { return this->is_answered("probe"); }));
    EXPECT_THAT(log_records(), IsEmpty());
    EXPECT_NE(this->sockets()->receiver_state, ReceiverState::kAbsent);
  } else {
    ASSERT_TRUE(this->wait_for_end());
    EXPECT_THAT(log_records(), ElementsAre(LoggedError("select for ipv4 failed!!!!!")));
    EXPECT_EQ(this->sockets()->receiver_state, ReceiverState::kAbsent);
  }
}

TYPED_TEST(ReplyReceiverTest, ComesBackWithTheNextCall) {
  const int32_t key = this->enter_probe("probe");
  {
    Fault fault("recv", ENETDOWN);
    this->start();
    this->deliver({1});
    ASSERT_TRUE(this->wait_for_end());
  }
  this->start();
  EXPECT_EQ(call_count("pthread_create"), 2);
  this->deliver(EchoKit<TypeParam>::reply(static_cast<uint32_t>(key)));
  EXPECT_TRUE(wait_until([&] { return this->is_answered("probe"); }));
}

TYPED_TEST(ReplyReceiverTest, SocketThatCouldNotBeMadeIsAFailedWait) {
  {
    Fault fault("socket", EPERM);
    this->sockets();
  }
  clear_log();
  ensure_receiver(TypeParam::kFamily, this->ifname_);
  ASSERT_TRUE(this->wait_for_end());
  EXPECT_THAT(log_records(),
              ElementsAre(LoggedError(TypeParam::kFamily.ipv6 ? "recv for ipv6 failed!!!!!"
                                                              : "select for ipv4 failed!!!!!")));
}

TYPED_TEST(ReplyReceiverTest, ThreadThatCannotBeMadeIsLoggedAndNotTriedAgain) {
  {
    Fault fault("pthread_create", EAGAIN);
    ensure_receiver(TypeParam::kFamily, this->ifname_);
  }
  EXPECT_THAT(log_records(), ElementsAre(LoggedError("Can't create new thread for icmp recv"),
                                         LoggedError("Can't detach thread for icmp recv")));
  EXPECT_NE(this->sockets()->receiver_state, ReceiverState::kAbsent);
  const int calls = call_count("pthread_create");
  ensure_receiver(TypeParam::kFamily, this->ifname_);
  EXPECT_EQ(call_count("pthread_create"), calls);
}

TYPED_TEST(ReplyReceiverTest, ThreadThatCannotBeDetachedRunsAllTheSame) {
  const int32_t key = this->enter_probe("probe");
  CallHook hook(wrapped::pthread_detach, [](pthread_t thread) {
    wrapped::pthread_detach.real(thread);
    return EINVAL;
  });
  this->start();
  EXPECT_THAT(log_records(), ElementsAre(LoggedError("Can't detach thread for icmp recv")));
  this->deliver(EchoKit<TypeParam>::reply(static_cast<uint32_t>(key)));
  EXPECT_TRUE(wait_until([&] { return this->is_answered("probe"); }));
}

TYPED_TEST(ReplyReceiverTest, FailuresAreSilentWithoutTheFlag) {
  set_log_flag(1, false);
  Fault fault("pthread_create", EAGAIN);
  ensure_receiver(TypeParam::kFamily, this->ifname_);
  EXPECT_THAT(log_records(), IsEmpty());
}

TYPED_TEST(ReplyReceiverTest, MarksUnlockedWhenTheMutexFails) {
  const std::string name = EchoKit<TypeParam>::kReceiver;
  const std::string family = TypeParam::kFamily.name;
  pthread_mutex_t* const broken = this->acquire_mutex();
  const int32_t key = this->enter_probe("probe");
  {
    CallHook hook(wrapped::pthread_mutex_lock, [broken](pthread_mutex_t* mutex) {
      if (mutex != broken) return wrapped::pthread_mutex_lock.real(mutex);
      errno = EAGAIN;
      return EINVAL;
    });
    this->start();
    this->deliver(EchoKit<TypeParam>::reply(static_cast<uint32_t>(key)));
    EXPECT_TRUE(wait_until([&] { return this->is_answered("probe"); }));
    this->network_.end_threads();
  }
  EXPECT_THAT(log_records(),
              Contains(LoggedError("<" + name + "> pthread_mutex_lock for " + family +
                                   " failed!!!!! rc = 22, errno = 11 (Resource temporarily "
                                   "unavailable)")));
}

TYPED_TEST(ReplyReceiverTest, UnlockFailureIsLogged) {
  const std::string name = EchoKit<TypeParam>::kReceiver;
  const std::string family = TypeParam::kFamily.name;
  pthread_mutex_t* const broken = this->acquire_mutex();
  const int32_t key = this->enter_probe("probe");
  {
    CallHook hook(wrapped::pthread_mutex_unlock, [broken](pthread_mutex_t* mutex) {
      const int result = wrapped::pthread_mutex_unlock.real(mutex);
      if (mutex != broken) return result;
      errno = EAGAIN;
      return EPERM;
    });
    this->start();
    this->deliver(EchoKit<TypeParam>::reply(static_cast<uint32_t>(key)));
    EXPECT_TRUE(wait_until([&] { return this->is_answered("probe"); }));
    this->network_.end_threads();
  }
  EXPECT_THAT(log_records(),
              Contains(LoggedError("<" + name + "> pthread_mutex_unlock for " + family +
                                   " failed!!!!! rc = 1, errno = 11 (Resource temporarily "
                                   "unavailable)")));
}

// Many interfaces cost many descriptors: numbers beyond what a descriptor set holds.
TYPED_TEST(ReplyReceiverTest, WaitsOnDescriptorsAbove1023) {
  rlimit before{};
  ASSERT_EQ(getrlimit(RLIMIT_NOFILE, &before), 0);
  ASSERT_GE(before.rlim_max, 4096u) << "the hard limit of descriptors is too low for this test";
  rlimit raised = before;
  raised.rlim_cur = 4096;
  ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &raised), 0);
  std::vector<FakeNetwork::Socket> made;
  {
    CallHook hook(wrapped::socket, [&](int domain, int type, int) {
      int pair[2];
      EXPECT_EQ(socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, pair), 0);
      const int fd = fcntl(pair[0], F_DUPFD_CLOEXEC, 2000);
      wrapped::close.real(pair[0]);
      made.push_back({fd, pair[1], domain, type, 0, true});
      return fd;
    });
    this->sockets();
  }
  ASSERT_EQ(made.size(), 3u);
  EXPECT_GE(made[2].fd, 2000);
  const int32_t key = this->enter_probe("probe");
  ensure_receiver(TypeParam::kFamily, this->ifname_);
  FakeNetwork::deliver(made[2], EchoKit<TypeParam>::reply(static_cast<uint32_t>(key)));
  EXPECT_TRUE(wait_until([&] { return this->is_answered("probe"); }));
  for (const auto& socket : made) {
    ::shutdown(socket.peer, SHUT_RDWR);
    wrapped::close.real(socket.peer);
  }
  EXPECT_TRUE(this->wait_for_end());
  EXPECT_EQ(setrlimit(RLIMIT_NOFILE, &before), 0);
}

namespace {

// A receiver that is stopped before or after it takes a reply off its queue, and a worker for whom
// the time of that reply's probe is over.
template <class IpVersion>
class ReplyReceiverLateTest : public ReplyReceiverTest<IpVersion> {
 protected:
  ReplyReceiverLateTest()
      : poll_hook_(wrapped::poll,
                   [this](pollfd* fds, nfds_t count, int timeout) {
                     const int ready = wrapped::poll.real(fds, count, timeout);
                     if (!takes_first_ && timeout < 0) hold();
                     return ready;
                   }),
        recv_hook_(wrapped::recv, [this](int fd, void* data, size_t size, int flags) {
          const ssize_t received = wrapped::recv.real(fd, data, size, flags);
          if (takes_first_) hold();
          return received;
        }) {
    test_ = this->make_test("probe");
    key_ = this->enter_probe("probe");
  }

  ~ReplyReceiverLateTest() override {
    released_ = true;
    this->network_.end_threads();
  }

  // The reply has arrived, and the receiver is held with it.
  void hold_receiver(bool takes_first) {
    takes_first_ = takes_first;
    this->start();
    this->deliver(EchoKit<IpVersion>::reply(static_cast<uint32_t>(key_)));
    ASSERT_TRUE(wait_until([&] { return held_.load(); }));
    EXPECT_EQ(this->sockets()->receiver_state == ReceiverState::kReading, takes_first);
  }

  // The worker looks, and the receiver goes on once it has waited so often.
  int32_t outcome_when_released_after(size_t sleeps) {
    virtual_clock::on_sleep([this, sleeps](std::chrono::nanoseconds) {
      if (virtual_clock::sleeps().size() != sleeps) return;
      released_ = true;
      EXPECT_TRUE(wait_until([&] { return this->is_answered("probe"); }));
    });
    virtual_clock::advance(std::chrono::milliseconds(5001));
    test_->recv(this->interface_, this->worker_);
    virtual_clock::on_sleep({});
    return test_->report().result;
  }

  void hold() {
    held_ = true;
    while (!released_) sched_yield();
  }

  bool takes_first_ = false;
  std::atomic<bool> held_{false};
  std::atomic<bool> released_{false};
  std::unique_ptr<typename EchoKit<IpVersion>::Test> test_;
  int32_t key_ = 0;
  CallHook<int(pollfd*, nfds_t, int)> poll_hook_;
  CallHook<ssize_t(int, void*, size_t, int)> recv_hook_;
};

}  // namespace

TYPED_TEST_SUITE(ReplyReceiverLateTest, BothFamilies, FamilyName);

TYPED_TEST(ReplyReceiverLateTest, UnreadReplyIsNotTooLate) {
  this->hold_receiver(false);
  EXPECT_EQ(this->outcome_when_released_after(3), kResultSuccess);
}

TYPED_TEST(ReplyReceiverLateTest, ReplyThatIsBeingReadIsNotTooLate) {
  this->hold_receiver(true);
  EXPECT_EQ(this->outcome_when_released_after(3), kResultSuccess);
}

TYPED_TEST(ReplyReceiverLateTest, IsWaitedForAFifthOfASecond) {
  this->hold_receiver(false);
  EXPECT_EQ(this->outcome_when_released_after(1000), kResultFailure);
  EXPECT_THAT(virtual_clock::sleeps(),
              testing::AllOf(testing::SizeIs(200), testing::Each(std::chrono::milliseconds(1))));
}

TYPED_TEST(ReplyReceiverTest, ThatHasEndedIsNotWaitedFor) {
  this->start();
  {
    Fault fault("recv", ENETDOWN);
    this->deliver({1});
    ASSERT_TRUE(this->wait_for_end());
  }
  this->deliver({1});
  let_receiver_catch_up(*this->sockets());
  EXPECT_THAT(virtual_clock::sleeps(), IsEmpty());
}

TYPED_TEST(ReplyReceiverTest, ThatCouldNotBeStartedIsNotWaitedFor) {
  {
    Fault fault("pthread_create", EAGAIN);
    this->start();
  }
  this->deliver({1});
  let_receiver_catch_up(*this->sockets());
  EXPECT_THAT(virtual_clock::sleeps(), IsEmpty());
}

// A burst reads the same socket and may be faster.
TYPED_TEST(ReplyReceiverTest, GoesOnWhenAnotherHasTakenTheReply) {
  const int32_t key = this->enter_probe("probe");
  std::atomic<int> polls{0};
  {
    CallHook hook(wrapped::poll, [&](pollfd* fds, nfds_t count, int timeout) {
      return ++polls == 1 ? 1 : wrapped::poll.real(fds, count, timeout);
    });
    this->start();
    ASSERT_TRUE(wait_until([&] { return polls == 2; }));
    EXPECT_TRUE(
        wait_until([&] { return this->sockets()->receiver_state == ReceiverState::kWaiting; }));
    this->deliver(EchoKit<TypeParam>::reply(static_cast<uint32_t>(key)));
    EXPECT_TRUE(wait_until([&] { return this->is_answered("probe"); }));
    this->network_.end_threads();
  }
}

// From the wire to the interface's counters.
TYPED_TEST(ReplyReceiverTest, ReplyBecomesASuccess) {
  using Kit = EchoKit<TypeParam>;
  const auto test = this->make_test("probe");
  const int32_t key = this->enter_probe("probe");
  test->recv(this->interface_, this->worker_);
  EXPECT_EQ(test->report().result, 0);
  this->start();
  this->deliver(Kit::reply(static_cast<uint32_t>(key)));
  ASSERT_TRUE(wait_until([&] { return this->is_answered("probe"); }));
  test->recv(this->interface_, this->worker_);
  EXPECT_EQ(test->report().result, 1);
  EXPECT_FALSE(this->probe_to("probe").has_value());
  EXPECT_EQ(call_count("pthread_create"), 1);
}
