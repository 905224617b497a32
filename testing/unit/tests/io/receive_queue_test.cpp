// The queue of a receiving socket: its size, and what the kernel lets into it.
#include <sys/socket.h>

#include "packets/icmp_echo.h"
#include "support/echo_fixture.h"
#include "tests/io/receive_queue.h"

using testing::ElementsAre;

namespace {

using Bytes = std::vector<uint8_t>;

// One end of a pair of datagram sockets, and what comes through to it.
class Queue {
 public:
  Queue() {
    int ends[2];
    EXPECT_EQ(socketpair(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0, ends), 0);
    near_ = FileDescriptor(ends[0]);
    far_ = FileDescriptor(ends[1]);
  }

  int fd() const { return near_.get(); }

  bool passes(const Bytes& message) const {
    ::send(far_.get(), message.data(), message.size(), MSG_DONTWAIT);
    Bytes buffer(65535);
    const ssize_t length = ::recv(near_.get(), buffer.data(), buffer.size(), MSG_DONTWAIT);
    return length == static_cast<ssize_t>(message.size());
  }

 private:
  FileDescriptor near_, far_;
};

// An echo reply with that key, as the family's raw sockets deliver it.
template <class IpVersion>
Bytes reply(uint32_t key) {
  Bytes message(IpVersion::kFamily.ipv6 ? 12 : 32);
  message[IpVersion::kFamily.ipv6 ? 0 : 20] = IpVersion::kFamily.ipv6 ? 129 : 0;
  for (size_t at = 0; at < 4; ++at) {
    message[message.size() - 1 - at] = static_cast<uint8_t>(key >> (8 * at));
  }
  return message;
}

template <class IpVersion>
std::optional<uint32_t> key_of(const Bytes& message) {
  if constexpr (IpVersion::kFamily.ipv6) {
    return echo6_reply_key(message);
  } else {
    return echo_reply_key(message);
  }
}

template <class IpVersion>
class ReceiveQueueFilterTest : public testing::Test {};

}  // namespace

TYPED_TEST_SUITE(ReceiveQueueFilterTest, BothFamilies, FamilyName);

TYPED_TEST(ReceiveQueueFilterTest, PassesKeysThatProbesHave) {
  const Queue queue;
  refuse_foreign_messages(queue.fd(), TypeParam::kFamily);
  for (const uint32_t key : {0u, 1u, 255u, 256u, 32766u}) {
    ASSERT_EQ(key_of<TypeParam>(reply<TypeParam>(key)), key);
    EXPECT_TRUE(queue.passes(reply<TypeParam>(key))) << key;
    Bytes longer = reply<TypeParam>(key);
    longer.resize(1500, 0xee);
    EXPECT_TRUE(queue.passes(longer)) << key << ", must come uncut";
  }
}

TYPED_TEST(ReceiveQueueFilterTest, RefusesOtherKeys) {
  const Queue queue;
  refuse_foreign_messages(queue.fd(), TypeParam::kFamily);
  for (const uint32_t key : {32767u, 32768u, 0x10001u, 0x01000000u, 0x7fffffffu, 0xffffffffu}) {
    EXPECT_FALSE(queue.passes(reply<TypeParam>(key))) << key;
  }
}

TYPED_TEST(ReceiveQueueFilterTest, RefusesMessagesWithoutAKey) {
  const Queue queue;
  refuse_foreign_messages(queue.fd(), TypeParam::kFamily);
  const Bytes whole = reply<TypeParam>(1);
  for (size_t size = 1; size < whole.size(); ++size) {
    const Bytes cut(whole.begin(), whole.begin() + static_cast<ptrdiff_t>(size));
    ASSERT_EQ(key_of<TypeParam>(cut), std::nullopt);
    EXPECT_FALSE(queue.passes(cut)) << size;
  }
}

TEST(ReceiveQueueFilter4Test, PassesEveryTypeForBursts) {
  const Queue queue;
  refuse_foreign_messages(queue.fd(), kIpv4);
  for (int type = 0; type < 256; ++type) {
    Bytes message = reply<Ipv4>(7);
    message[20] = static_cast<uint8_t>(type);
    EXPECT_TRUE(queue.passes(message)) << type;
  }
}

TEST(ReceiveQueueFilter6Test, PassesEchoRepliesOnly) {
  const Queue queue;
  refuse_foreign_messages(queue.fd(), kIpv6);
  for (int type = 0; type < 256; ++type) {
    Bytes message = reply<Ipv6>(7);
    message[0] = static_cast<uint8_t>(type);
    EXPECT_EQ(queue.passes(message), type == 129) << type;
  }
}

TEST(ReceiveQueueTest, IsEnlargedAsFarAsTheSystemAllows) {
  std::vector<int> asked;
  int refused = 0;
  CallHook hook(wrapped::setsockopt, [&](int, int level, int name, const void*, socklen_t size) {
    EXPECT_EQ(level, SOL_SOCKET);
    EXPECT_EQ(size, sizeof(int));
    asked.push_back(name);
    if (name != refused) return 0;
    errno = EPERM;
    return -1;
  });
  enlarge_receive_queue(7);
  EXPECT_THAT(asked, ElementsAre(SO_RCVBUFFORCE));
  asked.clear();
  refused = SO_RCVBUFFORCE;
  enlarge_receive_queue(7);
  EXPECT_THAT(asked, ElementsAre(SO_RCVBUFFORCE, SO_RCVBUF));
}

TEST(ReceiveQueueTest, LargerOneIsLeftAlone) {
  const Queue queue;
  const int huge = 8 << 20;
  ASSERT_EQ(setsockopt(queue.fd(), SOL_SOCKET, SO_RCVBUF, &huge, sizeof(huge)), 0);
  int present = 0;
  socklen_t size = sizeof(present);
  ASSERT_EQ(getsockopt(queue.fd(), SOL_SOCKET, SO_RCVBUF, &present, &size), 0);
  const int calls = call_count("setsockopt");
  enlarge_receive_queue(queue.fd());
  // Where the system's limit is small there is still something to ask for.
  EXPECT_EQ(call_count("setsockopt") > calls, present < 4 << 20);
}

TEST(ReceiveQueueTest, IsNeverMadeSmaller) {
  const Queue queue;
  int before = 0;
  int after = 0;
  socklen_t size = sizeof(before);
  ASSERT_EQ(getsockopt(queue.fd(), SOL_SOCKET, SO_RCVBUF, &before, &size), 0);
  enlarge_receive_queue(queue.fd());
  ASSERT_EQ(getsockopt(queue.fd(), SOL_SOCKET, SO_RCVBUF, &after, &size), 0);
  EXPECT_GE(after, before);
}
