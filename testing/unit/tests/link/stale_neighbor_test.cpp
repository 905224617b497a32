// When the kernel is asked to verify the entry of a next hop, and with what.
#include "tests/link/stale_neighbor.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "support/fake_network.h"
#include "support/recorded_log.h"
#include "support/route_answers.h"

using testing::Each;
using testing::IsEmpty;
using testing::SizeIs;

namespace {

struct Stale4 {
  static constexpr const Family& kFamily = kIpv4;
  static constexpr const char* kGateway = "192.0.2.254";
  static constexpr const char* kOfTheOtherFamily = "fe80::1";

  // A request of that type about the gateway on interface 7.
  static Bytes request(uint16_t type) {
    Bytes bytes = netlink_message(type, 36);
    set(bytes, 6, uint16_t{1});   // flags: request
    bytes[16] = 2;                // family AF_INET
    set(bytes, 20, int32_t{7});   // interface index
    set(bytes, 28, uint16_t{8});  // attribute length
    set(bytes, 30, uint16_t{1});  // NDA_DST
    bytes[32] = 192, bytes[33] = 0, bytes[34] = 2, bytes[35] = 254;
    return bytes;
  }
};

struct Stale6 {
  static constexpr const Family& kFamily = kIpv6;
  static constexpr const char* kGateway = "fe80::1";
  static constexpr const char* kOfTheOtherFamily = "192.0.2.254";

  static Bytes request(uint16_t type) {
    Bytes bytes = netlink_message(type, 48);
    set(bytes, 6, uint16_t{1});    // flags: request
    bytes[16] = 10;                // family AF_INET6
    set(bytes, 20, int32_t{7});    // interface index
    set(bytes, 28, uint16_t{20});  // attribute length
    set(bytes, 30, uint16_t{1});   // NDA_DST
    bytes[32] = 0xfe, bytes[33] = 0x80, bytes[47] = 0x01;
    return bytes;
  }
};

// A failed interface wan1, which is eth0 to Linux, and a kernel whose entry of its next hop is
// stale.
template <class Kind>
class StaleNeighborTest : public testing::Test {
 protected:
  StaleNeighborTest() {
    network_.interface_names = {{7, "eth0"}, {9, "wan1"}};
    interface_.origin = "eth0";
    interface_.nexthop = Kind::kGateway;
    change([](InterfaceState& state) {
      state.target_results = {{"target", -1}};
      state.failure_counts = {{"target", 1}};
      state.no_arp = false;
    });
  }

  void change(const std::function<void(InterfaceState&)>& how) {
    MutexLock lock(interface_.mutex);
    how(interface_.state);
  }

  // One cycle's verifying, with all that it hands to the kernel; nothing may be logged.
  void verify() {
    requests_.clear();
    flags_.clear();
    CallHook sending(wrapped::send, [this](int fd, const void* data, size_t size, int flags) {
      const auto* first = static_cast<const uint8_t*>(data);
      requests_.emplace_back(first, first + size);
      flags_.push_back(flags);
      if (requests_.size() == 1 && answer_) {
        FakeNetwork::deliver(network_.socket_of(fd), *answer_);
      }
      return static_cast<ssize_t>(size);
    });
    CallHook receiving(wrapped::recv, [this](int fd, void* data, size_t size, int flags) {
      flags_.push_back(flags);
      return wrapped::recv.real(fd, data, size, flags);
    });
    verify_stale_nexthop(interface_, Kind::kFamily);
    EXPECT_THAT(log_records(), IsEmpty());
    EXPECT_THAT(flags_, Each(MSG_DONTWAIT));
    for (const auto& socket : network_.sockets) EXPECT_TRUE(FakeNetwork::is_closed(socket));
  }

  // Not even a question goes to the kernel.
  void expect_nothing_asked() {
    verify();
    EXPECT_THAT(requests_, IsEmpty());
  }

  FakeNetwork network_;
  LBInterface interface_{"wan1", Kind::kFamily.ipv6};
  std::optional<Bytes> answer_ = empty_entry(NUD_STALE);
  std::vector<Bytes> requests_;
  std::vector<int> flags_;  // of every send and receive
};

using StaleKinds = testing::Types<Stale4, Stale6>;

struct StaleKindName {
  template <class Kind>
  static std::string GetName(int) {
    return Kind::kFamily.name;
  }
};

}  // namespace

TYPED_TEST_SUITE(StaleNeighborTest, StaleKinds, StaleKindName);

TYPED_TEST(StaleNeighborTest, StaleEntryIsUsed) {
  this->verify();
  ASSERT_THAT(this->requests_, SizeIs(2));
  EXPECT_EQ(this->requests_[0], TypeParam::request(30));  // RTM_GETNEIGH
  Bytes use = TypeParam::request(28);                     // RTM_NEWNEIGH, without creating one
  use[26] = 0x01;                                         // NTF_USE
  EXPECT_EQ(this->requests_[1], use);
  EXPECT_THAT(this->flags_, SizeIs(3)) << "two sends and one receive";
  ASSERT_THAT(this->network_.sockets, SizeIs(1));
  EXPECT_EQ(this->network_.sockets[0].domain, AF_NETLINK);
  EXPECT_EQ(this->network_.sockets[0].type, SOCK_RAW);
  EXPECT_EQ(this->network_.sockets[0].protocol, NETLINK_ROUTE);
  EXPECT_TRUE(this->network_.sockets[0].close_on_exec);
}

TYPED_TEST(StaleNeighborTest, EntryInAnotherStateIsOnlyLookedAt) {
  for (const uint16_t state : {NUD_NONE, NUD_INCOMPLETE, NUD_REACHABLE, NUD_DELAY, NUD_PROBE,
                               NUD_FAILED, NUD_NOARP, NUD_PERMANENT}) {
    this->answer_ = empty_entry(state);
    this->verify();
    EXPECT_THAT(this->requests_, SizeIs(1)) << state;
  }
}

TYPED_TEST(StaleNeighborTest, NoEntryIsNotUsed) {
  for (const int error : {ENOENT, EPERM}) {
    this->answer_ = error_message(-error);
    this->verify();
    EXPECT_THAT(this->requests_, SizeIs(1)) << error;
  }
}

// Which interfaces.

TYPED_TEST(StaleNeighborTest, ActiveInterfaceIsLeftAlone) {
  this->change([](InterfaceState& state) { state.active = true; });
  this->expect_nothing_asked();
  EXPECT_THAT(this->network_.sockets, IsEmpty());
}

TYPED_TEST(StaleNeighborTest, InterfaceThatHasNotSettledIsLeftAlone) {
  this->change([](InterfaceState& state) {
    state.target_results.clear();
    state.failure_counts.clear();
  });
  this->expect_nothing_asked();
  EXPECT_THAT(this->network_.sockets, IsEmpty());
}

// A next hop that is the target counts as failed from the first probe on.
TYPED_TEST(StaleNeighborTest, NextHopThatHasNotFailedYetIsLeftAlone) {
  this->interface_.failure_ct = 2;
  for (const int32_t failures : {0, 1}) {
    this->change([=](InterfaceState& state) {
      state.target_results = {{TypeParam::kGateway, -1}};
      state.failure_counts = {{TypeParam::kGateway, failures}};
    });
    this->expect_nothing_asked();
  }
}

TYPED_TEST(StaleNeighborTest, InterfaceWithoutAddressResolutionIsLeftAlone) {
  this->change([](InterfaceState& state) { state.no_arp = true; });
  this->expect_nothing_asked();
  this->change([](InterfaceState& state) { state.no_arp = std::nullopt; });  // could not be read
  this->expect_nothing_asked();
  EXPECT_THAT(this->network_.sockets, IsEmpty());
}

TYPED_TEST(StaleNeighborTest, InterfaceThatHasGoneIsLeftAlone) {
  Fault fault("if_nametoindex", ENODEV);
  this->expect_nothing_asked();
}

// Which next hop.

TYPED_TEST(StaleNeighborTest, LearntNextHopIsTheOne) {
  this->interface_.nexthop = "dhcp";
  this->change([](InterfaceState& state) { state.nexthop_address = TypeParam::kGateway; });
  this->verify();
  ASSERT_THAT(this->requests_, SizeIs(2));
  EXPECT_EQ(this->requests_[0], TypeParam::request(30));
}

TYPED_TEST(StaleNeighborTest, WithoutANextHopNothingIsAsked) {
  this->interface_.nexthop = "dhcp";  // and no lease
  this->expect_nothing_asked();
  this->interface_.nexthop = TypeParam::kOfTheOtherFamily;
  this->expect_nothing_asked();
  this->interface_.nexthop = "gateway.example";
  this->expect_nothing_asked();
}

// Failures: the next cycle tries again.

TYPED_TEST(StaleNeighborTest, NoSocket) {
  Fault fault("socket", EMFILE);
  verify_stale_nexthop(this->interface_, TypeParam::kFamily);
  EXPECT_THAT(log_records(), IsEmpty());
}

TYPED_TEST(StaleNeighborTest, QuestionThatCannotBeSent) {
  Fault fault("send", EAGAIN);
  this->expect_nothing_asked();
  EXPECT_EQ(call_count("send"), 1);
  EXPECT_EQ(call_count("recv"), 0);
}

TYPED_TEST(StaleNeighborTest, MissingAnswerIsNotWaitedFor) {
  this->answer_ = std::nullopt;
  this->verify();
  EXPECT_THAT(this->requests_, SizeIs(1));
  EXPECT_EQ(call_count("recv"), 1);
  EXPECT_EQ(call_count("poll") + call_count("ppoll"), 0);
}

TYPED_TEST(StaleNeighborTest, CutAnswerIsNone) {
  this->answer_->resize(27);
  this->verify();
  EXPECT_THAT(this->requests_, SizeIs(1));
}
