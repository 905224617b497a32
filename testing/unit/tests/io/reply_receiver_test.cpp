// What the receiver thread of an interface does with replies.
#include "tests/io/reply_receiver.h"

#include <fcntl.h>
#include <sys/resource.h>

#include <random>

#include "support/receiver_fixture.h"

using testing::Contains;
using testing::IsEmpty;
using testing::Not;

namespace {

template <class IpVersion>
class ReplyReceiverTest : public ReceiverFixture<IpVersion> {};

}  // namespace

TYPED_TEST_SUITE(ReplyReceiverTest, BothFamilies, FamilyName);

TYPED_TEST(ReplyReceiverTest, MarksTheProbeOfAReply) {
  const int32_t key = this->enter_probe("probe");
  this->start();
  EXPECT_FALSE(this->is_answered());
  this->deliver_answer(key);
  EXPECT_TRUE(this->becomes_answered());
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
  EXPECT_FALSE(this->is_answered());
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
  EXPECT_FALSE(this->is_answered());
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
  EXPECT_FALSE(this->is_answered());
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
  EXPECT_FALSE(this->is_answered());
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
  EXPECT_FALSE(this->is_answered());
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
  EXPECT_TRUE(this->becomes_answered());
  this->network_.end_threads();
  EXPECT_EQ(asked, 65535u);
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

TYPED_TEST(ReplyReceiverTest, MarksUnlockedWhenTheMutexFails) {
  BrokenLock broken(this->acquire_mutex(), EINVAL);
  this->receive_answer();
  EXPECT_THAT(log_records(),
              Contains(this->logged_mutex_failure(EchoKit<TypeParam>::kReceiver, "lock", EINVAL)));
}

TYPED_TEST(ReplyReceiverTest, UnlockFailureIsLogged) {
  BrokenUnlock broken(this->acquire_mutex(), EPERM);
  this->receive_answer();
  EXPECT_THAT(log_records(),
              Contains(this->logged_mutex_failure(EchoKit<TypeParam>::kReceiver, "unlock", EPERM)));
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
  EXPECT_TRUE(this->becomes_answered());
  for (const auto& socket : made) {
    ::shutdown(socket.peer, SHUT_RDWR);
    wrapped::close.real(socket.peer);
  }
  EXPECT_TRUE(this->wait_for_end());
  EXPECT_EQ(setrlimit(RLIMIT_NOFILE, &before), 0);
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
    this->deliver_answer(key);
    EXPECT_TRUE(this->becomes_answered());
    this->network_.end_threads();
  }
}

// From the wire to the interface's counters.
TYPED_TEST(ReplyReceiverTest, ReplyBecomesASuccess) {
  const auto test = this->make_test("probe");
  const int32_t key = this->enter_probe("probe");
  test->recv(this->interface_, this->worker_);
  EXPECT_EQ(test->report().result, 0);
  this->start();
  this->deliver_answer(key);
  ASSERT_TRUE(this->becomes_answered());
  test->recv(this->interface_, this->worker_);
  EXPECT_EQ(test->report().result, 1);
  EXPECT_FALSE(this->probe_to("probe").has_value());
  EXPECT_EQ(call_count("pthread_create"), 1);
}
