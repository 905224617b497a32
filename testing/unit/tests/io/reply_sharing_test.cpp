// Who of the receivers of a namespace takes what: the options that their sockets get. That the
// kernel does what they say is tested in kernel/reply_sharing_test.cpp.
#include "tests/io/reply_sharing.h"

#include <gmock/gmock.h>
#include <linux/filter.h>

#include <climits>
#include <functional>
#include <map>

#include "support/echo_fixture.h"
#include "tests/burst_probe.h"
#include "tests/io/reply_receiver.h"

using testing::ElementsAre;
using testing::IsEmpty;

namespace {

constexpr int kNone = INT_MAX;  // an index that no device has

template <class IpVersion>
class ReplySharingTest : public testing::Test {
 protected:
  ReplySharingTest() {
    network_.interface_names = {{11, "wan1"}, {12, "wan2"}, {13, "wan3"}};
    network_.interface_index = 0;  // no others
    for (int& fd : fds_) fd = network_.open_socket(AF_INET, SOCK_RAW, 1);
  }

  // What a socket is bound to; nothing when that was never asked for.
  std::optional<int> device_of(int fd) const {
    std::optional<int> device;
    for (const auto& option : network_.options) {
      if (option.fd != fd || option.name != SO_BINDTOIFINDEX) continue;
      EXPECT_EQ(option.level, SOL_SOCKET);
      int index = -1;
      std::memcpy(&index, option.value.data(), sizeof(index));
      device = index;
    }
    return device;
  }

  // The devices that the socket's filter refuses.
  std::vector<uint32_t> refused_by(int fd) const {
    std::vector<uint32_t> devices;
    for (const auto& [of, program] : programs_) {
      if (of != fd) continue;
      devices.clear();
      if (program.front().k != static_cast<uint32_t>(SKF_AD_OFF + SKF_AD_IFINDEX)) continue;
      for (const sock_filter& test : program) {
        const bool is_test = test.code == (BPF_JMP | BPF_JEQ | BPF_K);
        if (is_test && test.jt > 0 && test.k > 10 && test.k < 20) devices.push_back(test.k);
      }
    }
    return devices;
  }

  bool has_filter(int fd) const {
    return std::any_of(programs_.begin(), programs_.end(),
                       [fd](const auto& entry) { return entry.first == fd; });
  }

  FakeNetwork network_;
  ReplySharing sharing_{IpVersion::kFamily};
  std::array<int, 3> fds_{};
  std::vector<std::pair<int, std::vector<sock_filter>>> programs_;
  CallHook<int(int, int, int, const void*, socklen_t)> hook_{
      wrapped::setsockopt, [this](int fd, int level, int name, const void* value, socklen_t size) {
        if (refuse_next_ == name) return refuse_next_ = 0, errno = EPERM, -1;
        if (name == SO_BINDTOIFINDEX && on_bind_) on_bind_();
        if (name == SO_ATTACH_FILTER && level == SOL_SOCKET) {
          const auto* program = static_cast<const sock_fprog*>(value);
          programs_.push_back({fd, {program->filter, program->filter + program->len}});
          if (most_instructions_ < program->len) return programs_.pop_back(), errno = ENOMEM, -1;
        }
        const auto* bytes = static_cast<const uint8_t*>(value);
        network_.options.push_back({fd, level, name, {bytes, bytes + size}});
        return 0;
      }};
  int refuse_next_ = 0;
  std::function<void()> on_bind_;
  size_t most_instructions_ = 4096;
};

}  // namespace

TYPED_TEST_SUITE(ReplySharingTest, BothFamilies, FamilyName);

TYPED_TEST(ReplySharingTest, FirstOneTakesTheRest) {
  this->sharing_.follow(this->fds_[0], "wan1");
  EXPECT_EQ(this->device_of(this->fds_[0]), 0);
  EXPECT_THAT(this->refused_by(this->fds_[0]), IsEmpty());
  this->sharing_.follow(this->fds_[1], "wan2");
  this->sharing_.follow(this->fds_[2], "wan3");
  EXPECT_EQ(this->device_of(this->fds_[0]), 0);
  EXPECT_EQ(this->device_of(this->fds_[1]), 12);
  EXPECT_EQ(this->device_of(this->fds_[2]), 13);
  EXPECT_THAT(this->refused_by(this->fds_[0]), ElementsAre(12, 13));
  EXPECT_TRUE(this->has_filter(this->fds_[1]));
  EXPECT_THAT(this->refused_by(this->fds_[1]), IsEmpty());
}

TYPED_TEST(ReplySharingTest, NothingIsSetWhereNothingChanged) {
  for (int i = 0; i < 3; ++i) this->sharing_.follow(this->fds_[i], "wan" + std::to_string(i + 1));
  const size_t before = this->network_.options.size();
  for (int i = 0; i < 3; ++i) this->sharing_.follow(this->fds_[i], "wan" + std::to_string(i + 1));
  EXPECT_EQ(this->network_.options.size(), before);
}

TYPED_TEST(ReplySharingTest, DeviceThatIsMadeAnewIsFollowed) {
  this->sharing_.follow(this->fds_[0], "wan1");
  this->sharing_.follow(this->fds_[1], "wan2");
  this->network_.interface_names = {{11, "wan1"}};
  this->sharing_.follow(this->fds_[1], "wan2");  // gone
  EXPECT_EQ(this->device_of(this->fds_[1]), 12);
  EXPECT_THAT(this->refused_by(this->fds_[0]), ElementsAre(12));
  this->network_.interface_names = {{11, "wan1"}, {19, "wan2"}};
  this->sharing_.follow(this->fds_[1], "wan2");
  EXPECT_EQ(this->device_of(this->fds_[1]), 19);
  EXPECT_THAT(this->refused_by(this->fds_[0]), ElementsAre(19));
}

TYPED_TEST(ReplySharingTest, WithoutADeviceNothingIsTaken) {
  this->network_.interface_names.clear();
  this->sharing_.follow(this->fds_[0], "wan1");
  this->sharing_.follow(this->fds_[1], "wan2");
  EXPECT_EQ(this->device_of(this->fds_[0]), 0) << "the first one takes all";
  EXPECT_EQ(this->device_of(this->fds_[1]), kNone);
  EXPECT_THAT(this->refused_by(this->fds_[0]), IsEmpty());
}

TYPED_TEST(ReplySharingTest, WhoLeavesIsHeardForByTheCollector) {
  for (int i = 0; i < 3; ++i) this->sharing_.follow(this->fds_[i], "wan" + std::to_string(i + 1));
  this->sharing_.leave(this->fds_[1]);
  EXPECT_THAT(this->refused_by(this->fds_[0]), ElementsAre(13));
  this->sharing_.leave(this->fds_[1]);  // once only
  this->sharing_.follow(this->fds_[1], "wan2");
  EXPECT_THAT(this->refused_by(this->fds_[0]), ElementsAre(12, 13));
}

TYPED_TEST(ReplySharingTest, CollectorThatLeavesIsReplaced) {
  for (int i = 0; i < 3; ++i) this->sharing_.follow(this->fds_[i], "wan" + std::to_string(i + 1));
  this->sharing_.leave(this->fds_[0]);
  EXPECT_EQ(this->device_of(this->fds_[1]), 0);
  EXPECT_THAT(this->refused_by(this->fds_[1]), ElementsAre(13));
  this->sharing_.follow(this->fds_[0], "wan1");  // its receiver was started again
  EXPECT_EQ(this->device_of(this->fds_[0]), 11);
  EXPECT_THAT(this->refused_by(this->fds_[0]), IsEmpty())
      << "of the filter of before nothing is left";
  EXPECT_THAT(this->refused_by(this->fds_[1]), testing::UnorderedElementsAre(11, 13));
}

// A socket that is bound may be unbound by who has the right to.
TYPED_TEST(ReplySharingTest, CollectorIsOneThatCanBeUnbound) {
  for (int i = 0; i < 3; ++i) this->sharing_.follow(this->fds_[i], "wan" + std::to_string(i + 1));
  this->refuse_next_ = SO_BINDTOIFINDEX;
  this->sharing_.leave(this->fds_[0]);
  EXPECT_EQ(this->device_of(this->fds_[1]), 12);
  EXPECT_EQ(this->device_of(this->fds_[2]), 0);
  EXPECT_THAT(this->refused_by(this->fds_[2]), ElementsAre(12));
}

// The device that had the name lives on under another: whose replies are never nobody's.
TYPED_TEST(ReplySharingTest, DeviceOfBeforeIsHeardForBeforeItIsLeft) {
  this->sharing_.follow(this->fds_[0], "wan1");
  this->sharing_.follow(this->fds_[1], "wan2");
  this->network_.interface_names = {{11, "wan1"}, {12, "old2"}, {19, "wan2"}};
  const size_t before = this->programs_.size();
  std::vector<uint32_t> refused_when_bound{0};
  this->on_bind_ = [&] { refused_when_bound = this->refused_by(this->fds_[0]); };
  this->sharing_.follow(this->fds_[1], "wan2");
  EXPECT_THAT(refused_when_bound, IsEmpty());
  EXPECT_EQ(this->programs_.size(), before + 2);
  EXPECT_THAT(this->refused_by(this->fds_[0]), ElementsAre(19));
}

TYPED_TEST(ReplySharingTest, DeviceThatCannotBeFollowedIsLeftAsItWas) {
  this->sharing_.follow(this->fds_[0], "wan1");
  this->sharing_.follow(this->fds_[1], "wan2");
  this->network_.interface_names = {{11, "wan1"}, {19, "wan2"}};
  this->refuse_next_ = SO_BINDTOIFINDEX;
  this->sharing_.follow(this->fds_[1], "wan2");
  EXPECT_EQ(this->device_of(this->fds_[1]), 12);
  EXPECT_THAT(this->refused_by(this->fds_[0]), ElementsAre(12));
}

TYPED_TEST(ReplySharingTest, LastOneMayLeaveAndComeBack) {
  this->sharing_.follow(this->fds_[0], "wan1");
  this->sharing_.leave(this->fds_[0]);
  this->sharing_.follow(this->fds_[1], "wan2");
  EXPECT_EQ(this->device_of(this->fds_[1]), 0);
}

TYPED_TEST(ReplySharingTest, EveryNamespaceHasACollector) {
  this->sharing_.follow(this->fds_[0], "wan1");
  ++this->network_.network_cookie;
  this->sharing_.follow(this->fds_[1], "wan2");
  EXPECT_EQ(this->device_of(this->fds_[1]), 0);
  EXPECT_THAT(this->refused_by(this->fds_[0]), IsEmpty());
}

TYPED_TEST(ReplySharingTest, KernelThatKnowsNoNamespacesLeavesAllToAll) {
  Fault fault("getsockopt", ENOPROTOOPT);
  this->sharing_.follow(this->fds_[0], "wan1");
  this->sharing_.follow(this->fds_[1], "wan2");
  EXPECT_THAT(this->network_.options, IsEmpty());
  this->sharing_.leave(this->fds_[1]);
}

TYPED_TEST(ReplySharingTest, WhoCannotBeBoundTakesAll) {
  this->sharing_.follow(this->fds_[0], "wan1");
  this->refuse_next_ = SO_BINDTOIFINDEX;
  this->sharing_.follow(this->fds_[1], "wan2");
  EXPECT_EQ(this->device_of(this->fds_[1]), std::nullopt);
  EXPECT_THAT(this->refused_by(this->fds_[0]), IsEmpty());
}

// A filter that is too large for the kernel must not leave the one of before in force.
TYPED_TEST(ReplySharingTest, CollectorWithTooManyDevicesRefusesNone) {
  this->sharing_.follow(this->fds_[0], "wan1");
  this->sharing_.follow(this->fds_[1], "wan2");
  ASSERT_THAT(this->refused_by(this->fds_[0]), ElementsAre(12));
  this->most_instructions_ = 6;
  this->sharing_.follow(this->fds_[2], "wan3");
  EXPECT_THAT(this->refused_by(this->fds_[0]), IsEmpty());
}

// The life of a receiver.

namespace {

template <class IpVersion>
class ReplySharingReceiverTest : public EchoFixture<IpVersion> {
 protected:
  // Whether the interface's socket takes what comes by devices of nobody.
  bool collects() {
    const auto& options = this->network_.options;
    const int fd = this->sockets()->recv_socket.get();
    for (auto option = options.rbegin(); option != options.rend(); ++option) {
      if (option->fd != fd || option->name != SO_BINDTOIFINDEX) continue;
      return option->value == FakeNetwork::Bytes(sizeof(int));
    }
    return false;
  }
};

}  // namespace

TYPED_TEST_SUITE(ReplySharingReceiverTest, BothFamilies, FamilyName);

TYPED_TEST(ReplySharingReceiverTest, SharesAsSoonAsAPingTestIsPrepared) {
  this->sockets();
  EXPECT_FALSE(this->collects());
  const auto test = this->make_test();
  EXPECT_TRUE(this->collects());
}

// Which nobody would read.
TEST(ReplySharingBurstTest, InterfaceOfBurstsAloneHasNoShare) {
  FakeNetwork network;
  LBInterface interface(unused_name("lb"), false);
  LBTestPING burst;
  burst.init(interface);
  for (const auto& option : network.options) EXPECT_NE(option.name, SO_BINDTOIFINDEX);
  LBTestICMP ping;
  ping.init(interface);
  EXPECT_EQ(network.options.back().fd, sockets_of(kIpv4, interface.origin)->recv_socket.get());
}

TYPED_TEST(ReplySharingReceiverTest, WhichCannotStartLeavesItsShareToOthers) {
  const std::string other = unused_name("lb");
  const auto test = this->make_test();
  const auto sockets = sockets_of(TypeParam::kFamily, other);
  kRawReplies.follow(sockets->recv_socket.get(), TypeParam::kFamily, other);
  {
    Fault fault("pthread_create", EAGAIN);
    ensure_receiver(TypeParam::kFamily, this->ifname_);
  }
  const int fd = sockets_of(TypeParam::kFamily, other)->recv_socket.get();
  const auto& last = this->network_.options.back();
  EXPECT_EQ(last.fd, fd);
  EXPECT_EQ(last.name, SO_BINDTOIFINDEX);
  EXPECT_EQ(last.value, FakeNetwork::Bytes(sizeof(int)));
  // Its probes do not take it back.
  const size_t before = this->network_.options.size();
  this->network_.no_arp = false;
  test->send(this->interface_, this->worker_);
  for (size_t i = before; i < this->network_.options.size(); ++i) {
    EXPECT_NE(this->network_.options[i].fd, this->sockets()->recv_socket.get());
  }
}

TYPED_TEST(ReplySharingReceiverTest, WhichEndsLeavesItsShareToOthersUntilTheNextProbe) {
  const std::string other = unused_name("lb");
  const auto test = this->make_test();
  const auto sockets = sockets_of(TypeParam::kFamily, other);
  kRawReplies.follow(sockets->recv_socket.get(), TypeParam::kFamily, other);
  {
    Fault fault("poll", EINVAL);
    Fault reading("recv", EINVAL);
    ensure_receiver(TypeParam::kFamily, this->ifname_);
    ASSERT_TRUE(wait_until([&] { return this->network_.live_threads() == 0; }));
  }
  EXPECT_EQ(this->network_.options.back().fd,
            sockets_of(TypeParam::kFamily, other)->recv_socket.get());
  this->network_.no_arp = false;
  test->send(this->interface_, this->worker_);
  EXPECT_FALSE(this->collects()) << "the other one does";
}
