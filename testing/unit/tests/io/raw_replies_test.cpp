// Replies from the raw ICMP socket: what is asked of the kernel, and what its answers mean.
#include "support/echo_fixture.h"
#include "tests/io/reply_source.h"

using testing::ElementsAre;
using testing::IsEmpty;
using Kind = ReceivedReply::Kind;

namespace {

using Bytes = FakeNetwork::Bytes;

template <class IpVersion>
class RawRepliesTest : public EchoFixture<IpVersion> {
 protected:
  ReceivedReply receive(int fd, int flags, bool asks_sender = false) {
    return kRawReplies.receive(fd, IpVersion::kFamily, buffer_, flags, asks_sender);
  }

  Bytes buffer_ = Bytes(100);
};

}  // namespace

TYPED_TEST_SUITE(RawRepliesTest, BothFamilies, FamilyName);

TYPED_TEST(RawRepliesTest, IsTheSourceUnlessAnotherIsAskedFor) {
  const auto test = this->make_test();
  EXPECT_EQ(&this->sockets()->replies, &kRawReplies);
  EXPECT_EQ(this->sockets()->ifname, this->ifname_);
}

TYPED_TEST(RawRepliesTest, SocketIsTheFamilysAndFiltered) {
  const FileDescriptor fd = kRawReplies.open(TypeParam::kFamily, this->ifname_);
  const auto made = this->network_.socket_of(fd.get());
  EXPECT_EQ(made.domain, EchoKit<TypeParam>::kDomain);
  EXPECT_EQ(made.type, SOCK_RAW);
  EXPECT_EQ(made.protocol, EchoKit<TypeParam>::kProtocol);
  EXPECT_TRUE(made.close_on_exec);
  EXPECT_THAT(this->network_.option_names(fd.get()), ElementsAre(SO_ATTACH_FILTER));
}

// No question to the kernel more than the documented ones.
TYPED_TEST(RawRepliesTest, FollowsNoDevice) {
  const auto test = this->make_test();
  const int fd = this->sockets()->recv_socket.get();
  const int binds = call_count("bind");
  const int lookups = call_count("if_nametoindex");
  kRawReplies.follow(fd, TypeParam::kFamily, this->ifname_);
  EXPECT_EQ(call_count("bind"), binds);
  EXPECT_EQ(call_count("if_nametoindex"), lookups);
  EXPECT_EQ(call_count("getsockname"), 0);
}

TYPED_TEST(RawRepliesTest, SenderIsToldWhereItIsAskedFor) {
  sockaddr_in6 from{};
  from.sin6_family = EchoKit<TypeParam>::kDomain;
  from.sin6_port = 77;
  CallHook hook(
      wrapped::recvfrom,
      [&](int, void* data, size_t, int flags, sockaddr* address, socklen_t* size) -> ssize_t {
        EXPECT_EQ(flags, MSG_DONTWAIT);
        std::memcpy(data, "abc", 3);
        std::memcpy(address, &from, sizeof(from));
        *size = sizeof(from);
        return 3;
      });
  const ReceivedReply reply = this->receive(5, MSG_DONTWAIT, /*asks_sender=*/true);
  EXPECT_EQ(reply.kind, Kind::kPacket);
  EXPECT_EQ(reply.packet.data(), this->buffer_.data());
  EXPECT_EQ(reply.packet.size(), 3u);
  SocketAddress expected;
  expected.ipv6 = from;
  expected.size = sizeof(from);
  EXPECT_TRUE(is_same(reply.sender, expected));
  expected.ipv6.sin6_port = 78;
  EXPECT_FALSE(is_same(reply.sender, expected));
  EXPECT_EQ(call_count("recv"), 0);
}

TYPED_TEST(RawRepliesTest, WhatTheKernelsAnswersMean) {
  struct Case {
    int error;  // 0: end of what there is
    int flags;
    Kind kind;
  };
  for (const Case& each :
       {Case{EAGAIN, MSG_DONTWAIT, Kind::kNothing}, Case{EAGAIN, 0, Kind::kFailed},
        Case{ENETDOWN, MSG_DONTWAIT, Kind::kFailed}, Case{ENETDOWN, 0, Kind::kFailed},
        Case{0, 0, Kind::kFailed}, Case{0, MSG_DONTWAIT, Kind::kFailed}}) {
    errno = EAGAIN;
    CallHook hook(wrapped::recv, [&](int, void*, size_t, int flags) -> ssize_t {
      EXPECT_EQ(flags, each.flags);
      if (each.error == 0) return 0;
      errno = each.error;
      return -1;
    });
    EXPECT_EQ(this->receive(5, each.flags).kind, each.kind) << each.error;
  }
  EXPECT_EQ(call_count("recvfrom"), 0);
}

TYPED_TEST(RawRepliesTest, AnyAnswers) {
  const SocketAddress nobody{};
  const PendingProbe probe{"elsewhere", kProbeWaiting, {}, EchoKit<TypeParam>::kTarget};
  EXPECT_TRUE(kRawReplies.answers(TypeParam::kFamily, this->ifname_, nobody, probe));
  EXPECT_THAT(log_records(), IsEmpty());
}
