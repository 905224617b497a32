// Replies from the wire: the packet socket, the device that it follows, and whose probe a reply
// answers.
#include <linux/filter.h>

#include "support/wire_fixture.h"

using testing::ElementsAre;
using testing::IsEmpty;
using Kind = ReceivedReply::Kind;

namespace {

using Bytes = FakeNetwork::Bytes;

template <class IpVersion>
class WireRepliesTest : public WireFixture<IpVersion> {
 protected:
  void follow() {
    kWireReplies.follow(this->sockets()->recv_socket.get(), IpVersion::kFamily, this->ifname_);
  }

  ReceivedReply receive(const Bytes& packet, int flags = MSG_DONTWAIT) {
    if (this->test_ == nullptr) this->test_ = this->make_test();
    const int fd = this->sockets()->recv_socket.get();
    FakeNetwork::deliver(this->network_.socket_of(fd), packet);
    return kWireReplies.receive(fd, IpVersion::kFamily, buffer_, flags, /*asks_sender=*/false);
  }

  // Whether a reply from this address by this interface answers a probe to that target.
  bool answers(const std::string& target, const std::string& sender, const std::string& by) const {
    SocketAddress from;
    from.ipv6.sin6_family = EchoKit<IpVersion>::kDomain;
    if constexpr (IpVersion::kFamily.ipv6) {
      EXPECT_EQ(inet_pton(AF_INET6, sender.c_str(), &from.ipv6.sin6_addr), 1);
    } else {
      EXPECT_EQ(inet_pton(AF_INET, sender.c_str(), &from.ipv4.sin_addr), 1);
    }
    return kWireReplies.answers(IpVersion::kFamily, by, from, {"wan1", kProbeWaiting, {}, target});
  }

  Bytes buffer_ = Bytes(65535);
};

}  // namespace

TYPED_TEST_SUITE(WireRepliesTest, BothFamilies, FamilyName);

TYPED_TEST(WireRepliesTest, SocketIsBoundToTheDevice) {
  const auto test = this->make_test();
  const auto sockets = this->sockets();
  EXPECT_EQ(&sockets->replies, &kWireReplies);
  const auto made = this->network_.socket_of(sockets->recv_socket.get());
  EXPECT_EQ(made.domain, AF_PACKET);
  EXPECT_EQ(made.type, SOCK_DGRAM) << "the link-layer header differs from device to device";
  EXPECT_EQ(made.protocol, 0) << "nothing may come in before it is bound";
  EXPECT_TRUE(made.close_on_exec);
  ASSERT_EQ(this->bound_.size(), 1u);
  EXPECT_EQ(this->bound_[0].fd, made.fd);
  EXPECT_EQ(this->bound_to()->sll_family, AF_PACKET);
  EXPECT_EQ(this->bound_to()->sll_protocol, htons(EchoKit<TypeParam>::kEtherType));
  EXPECT_EQ(this->bound_to()->sll_ifindex, 41);
  EXPECT_THAT(log_records(), IsEmpty());
}

// What comes in before the filter is there would be of anybody.
TYPED_TEST(WireRepliesTest, FilterComesBeforeTheDevice) {
  std::vector<std::string> order;
  CallHook bind(wrapped::bind, [&](int, const sockaddr*, socklen_t) {
    order.push_back("bind");
    return 0;
  });
  CallHook option(wrapped::setsockopt, [&](int, int, int name, const void*, socklen_t) {
    if (name == SO_ATTACH_FILTER) order.push_back("filter");
    return 0;
  });
  const FileDescriptor fd = kWireReplies.open(TypeParam::kFamily, this->ifname_);
  EXPECT_THAT(order, ElementsAre("filter", "bind"));
}

TYPED_TEST(WireRepliesTest, SendingSocketsAreTheSame) {
  const auto test = this->make_test();
  const auto& made = this->network_.sockets;
  ASSERT_EQ(made.size(), 3u);
  EXPECT_EQ(made[0].domain, EchoKit<TypeParam>::kDomain);
  EXPECT_EQ(made[1].domain, AF_PACKET);
  EXPECT_EQ(made[1].protocol, 0);
}

TYPED_TEST(WireRepliesTest, SocketThatCannotBeHadIsLogged) {
  Fault fault("socket", EPERM, 2, 1);
  const auto test = this->make_test();
  EXPECT_THAT(log_records(), ElementsAre(LoggedError("wan_lb: failed to acquired socket")));
  EXPECT_FALSE(this->sockets()->recv_socket.valid());
  EXPECT_THAT(this->bound_, IsEmpty());
}

TYPED_TEST(WireRepliesTest, DeviceThatIsNotThereYetIsFollowedLater) {
  this->remake_device(0);
  const auto test = this->make_test();
  EXPECT_TRUE(this->sockets()->recv_socket.valid());
  EXPECT_THAT(this->bound_, IsEmpty());
  EXPECT_THAT(this->network_.option_names(this->sockets()->recv_socket.get()), IsEmpty());
  this->remake_device(52);
  this->follow();
  ASSERT_EQ(this->bound_.size(), 1u);
  EXPECT_EQ(this->bound_to()->sll_ifindex, 52);
  EXPECT_THAT(log_records(), IsEmpty());
}

TYPED_TEST(WireRepliesTest, SameDeviceIsNotBoundAgain) {
  const auto test = this->make_test();
  for (int cycle = 0; cycle < 3; ++cycle) this->follow();
  EXPECT_EQ(this->bound_.size(), 1u);
}

TYPED_TEST(WireRepliesTest, RemadeDeviceIsFollowed) {
  const auto test = this->make_test();
  const int fd = this->sockets()->recv_socket.get();
  this->remake_device(42);
  this->follow();
  this->follow();
  ASSERT_EQ(this->bound_.size(), 2u);
  EXPECT_EQ(this->bound_[1].fd, fd) << "the receiver waits on this one";
  EXPECT_EQ(this->bound_to()->sll_ifindex, 42);
  // Its filter knows the index.
  EXPECT_THAT(this->network_.option_names(fd), ElementsAre(SO_ATTACH_FILTER, SO_ATTACH_FILTER));
}

TYPED_TEST(WireRepliesTest, SocketStaysWhereItIsWhileThereIsNoDevice) {
  const auto test = this->make_test();
  this->remake_device(0);
  this->follow();
  EXPECT_EQ(this->bound_.size(), 1u);
}

// Renamed to and fro: the filter is to know the index of what the socket is bound to.
TYPED_TEST(WireRepliesTest, DeviceThatCannotBeBoundLeavesTheFilterAsItWas) {
  const auto test = this->make_test();
  std::vector<uint32_t> filtered;  // the index that each filter knows
  CallHook option(wrapped::setsockopt, [&](int, int, int name, const void* value, socklen_t) {
    if (name == SO_ATTACH_FILTER) {
      filtered.push_back(static_cast<const sock_fprog*>(value)->filter[3].k);
    }
    return 0;
  });
  {
    Fault fault("bind", ENODEV);
    this->remake_device(42);
    this->follow();
    this->remake_device(41);
    this->follow();
  }
  EXPECT_THAT(filtered, ElementsAre(42, 41));
  EXPECT_EQ(this->bound_to()->sll_ifindex, 41);
}

TYPED_TEST(WireRepliesTest, SendingFollowsTheDevice) {
  this->network_.no_arp = true;
  const auto test = this->make_test();
  this->remake_device(43);
  test->send(this->interface_, this->worker_);
  ASSERT_EQ(this->bound_.size(), 2u);
  EXPECT_EQ(this->bound_to()->sll_ifindex, 43);
  const int questions = call_count("getsockname");
  test->send(this->interface_, this->worker_);
  EXPECT_EQ(call_count("getsockname"), questions) << "a probe is in flight: nothing is sent";
}

TYPED_TEST(WireRepliesTest, EndOfATestClosesTheSocket) {
  auto test = this->make_test();
  const auto made = this->network_.socket_of(this->sockets()->recv_socket.get());
  test.reset();
  EXPECT_TRUE(FakeNetwork::is_closed(made));
  EXPECT_FALSE(this->sockets()->recv_socket.valid());
  EXPECT_EQ(&this->sockets()->replies, &kWireReplies);
}

TYPED_TEST(WireRepliesTest, ReplyIsAsARawSocketWouldGiveItWithItsSender) {
  const Bytes packet = WireKit<TypeParam>::reply(0x1234);
  const ReceivedReply reply = this->receive(packet);
  ASSERT_EQ(reply.kind, Kind::kPacket);
  const size_t skipped = TypeParam::kFamily.ipv6 ? 40 : 0;
  EXPECT_EQ(Bytes(reply.packet.begin(), reply.packet.end()),
            Bytes(packet.begin() + static_cast<long>(skipped), packet.end()));
  SocketAddress expected;
  if (TypeParam::kFamily.ipv6) {
    expected.ipv6.sin6_family = AF_INET6;
    inet_pton(AF_INET6, "2001:db8:7::7", &expected.ipv6.sin6_addr);
    expected.size = 28;
  } else {
    expected.ipv4.sin_family = AF_INET;
    inet_pton(AF_INET, "198.51.100.7", &expected.ipv4.sin_addr);
    expected.size = 16;
  }
  EXPECT_TRUE(is_same(reply.sender, expected));
}

TYPED_TEST(WireRepliesTest, PacketThatIsNoReplyIsNothing) {
  Bytes request = WireKit<TypeParam>::reply(1);
  request[WireKit<TypeParam>::kType] = TypeParam::kFamily.echo_request;
  seal(request);
  EXPECT_EQ(this->receive(request).kind, Kind::kNothing);
  Bytes damaged = WireKit<TypeParam>::reply(1);
  damaged.back() ^= 1;
  EXPECT_EQ(this->receive(damaged).kind, Kind::kNothing);
  EXPECT_EQ(this->receive({1}).kind, Kind::kNothing);
}

TYPED_TEST(WireRepliesTest, WhatTheKernelsAnswersMean) {
  struct Case {
    int error;
    int flags;
    Kind kind;
  };
  // A device that went down or away says so once.
  for (const Case& each :
       {Case{EAGAIN, MSG_DONTWAIT, Kind::kNothing}, Case{EAGAIN, 0, Kind::kFailed},
        Case{ENETDOWN, MSG_DONTWAIT, Kind::kNothing}, Case{ENETDOWN, 0, Kind::kNothing},
        Case{EBADF, MSG_DONTWAIT, Kind::kFailed}, Case{EBADF, 0, Kind::kFailed}}) {
    Fault fault("recv", each.error);
    Bytes buffer(100);
    EXPECT_EQ(kWireReplies.receive(5, TypeParam::kFamily, buffer, each.flags, false).kind,
              each.kind)
        << each.error << " " << each.flags;
  }
}

TYPED_TEST(WireRepliesTest, AnswersTheProbeThatLeftByItToItsSender) {
  const std::string target = EchoKit<TypeParam>::kTarget;
  const std::string other = TypeParam::kFamily.ipv6 ? "2001:db8:7::8" : "198.51.100.8";
  EXPECT_TRUE(this->answers(target, target, "wan1"));
  EXPECT_FALSE(this->answers(target, target, "wan2"));
  EXPECT_FALSE(this->answers(target, target, "wan"));
  EXPECT_FALSE(this->answers(target, other, "wan1"));
}

// A name may have many addresses.
TYPED_TEST(WireRepliesTest, AnyoneMayAnswerForAName) {
  for (const char* name : WireKit<TypeParam>::kOtherNames) {
    EXPECT_TRUE(this->answers(name, EchoKit<TypeParam>::kTarget, "wan1")) << name;
    EXPECT_FALSE(this->answers(name, EchoKit<TypeParam>::kTarget, "wan2")) << name;
  }
}

TEST(WireReplies6Test, AddressesHaveManyTexts) {
  SocketAddress from;
  inet_pton(AF_INET6, "2001:db8::a", &from.ipv6.sin6_addr);
  for (const char* target : {"2001:DB8::A", "2001:db8:0:0:0:0:0:a", "2001:db8::000a"}) {
    EXPECT_TRUE(kWireReplies.answers(kIpv6, "wan1", from, {"wan1", kProbeWaiting, {}, target}));
  }
}
