// Entries of the kernel's neighbour tables that a failed interface's next hop is verified by.
#include "tests/link/stale_neighbor.h"

#include <gmock/gmock.h>
#include <linux/if_ether.h>

#include "support/recorded_log.h"
#include "veth_test.h"

using testing::AnyOf;
using testing::HasSubstr;
using testing::IsEmpty;

namespace {

struct Stale4 {
  static constexpr const Family& kFamily = kIpv4;
  static constexpr const char* kGateway = "10.79.0.2";
  static constexpr const char* kOwn = "10.79.0.1/24";
  static constexpr const char* kIp = "ip -4 ";
  static constexpr const char* kSettings = "net.ipv4.neigh.";
  static constexpr uint16_t kEtherType = ETH_P_ARP;

  // The kernel's request to the neighbour itself, not to all.
  static bool is_verification(const Bytes& frame) { return frame[0] == 0x06 && frame[21] == 1; }
};

struct Stale6 {
  static constexpr const Family& kFamily = kIpv6;
  static constexpr const char* kGateway = "fe80::2";
  static constexpr const char* kOwn = "fe80::1/64";
  static constexpr const char* kIp = "ip -6 ";
  static constexpr const char* kSettings = "net.ipv6.neigh.";
  static constexpr uint16_t kEtherType = ETH_P_IPV6;

  static bool is_verification(const Bytes& frame) {
    return frame[0] == 0x06 && frame.size() > 54 && frame[54] == 135;
  }
};

template <class Kind>
class KernelStaleNeighbor : public VethTest {
 protected:
  void SetUp() override {
    VethTest::SetUp();
    run(std::string("ip addr add ") + Kind::kOwn + " dev " + near() +
        (Kind::kFamily.ipv6 ? " nodad" : ""));
    interface_ = std::make_unique<LBInterface>("wan1", Kind::kFamily.ipv6);
    interface_->origin = near();
    interface_->nexthop = Kind::kGateway;
    MutexLock lock(interface_->mutex);
    interface_->state.target_results = {{"target", -1}};
    interface_->state.failure_counts = {{"target", 1}};
    interface_->state.no_arp = false;
  }

  void enter(const std::string& state, const std::string& ifname) {
    run(std::string(Kind::kIp) + "neigh add " + Kind::kGateway + " lladdr 06:aa:bb:cc:dd:ee dev " +
        ifname + " nud " + state);
  }
  void enter(const std::string& state) { enter(state, near()); }

  // The entry's line; empty when there is none.
  std::string entry_on(const std::string& ifname) const {
    return output_of(std::string(Kind::kIp) + "neigh show to " + Kind::kGateway + " dev " + ifname +
                     " nud all");
  }
  std::string entry() const { return entry_on(near()); }

  void verify() {
    verify_stale_nexthop(*interface_, Kind::kFamily);
    EXPECT_THAT(log_records(), IsEmpty());
  }

  std::unique_ptr<LBInterface> interface_;
};

using StaleKinds = testing::Types<Stale4, Stale6>;

struct StaleKindName {
  template <class Kind>
  static std::string GetName(int) {
    return Kind::kFamily.name;
  }
};

}  // namespace

TYPED_TEST_SUITE(KernelStaleNeighbor, StaleKinds, StaleKindName);

TYPED_TEST(KernelStaleNeighbor, StaleEntryIsVerified) {
  this->enter("stale");
  EXPECT_THAT(this->entry(), HasSubstr("STALE"));
  this->verify();
  EXPECT_THAT(this->entry(), AnyOf(HasSubstr("DELAY"), HasSubstr("PROBE")));
}

// Nobody has that hardware address any more.
TYPED_TEST(KernelStaleNeighbor, DeadEntryIsFoundOut) {
  this->run("sysctl -qw " + std::string(TypeParam::kSettings) + this->near() +
            ".delay_first_probe_time=1 " + TypeParam::kSettings + this->near() +
            ".retrans_time_ms=100");
  const FileDescriptor far_end = this->open_on(this->far(), TypeParam::kEtherType);
  this->enter("stale");
  this->verify();
  EXPECT_FALSE(this->next_frame(far_end, TypeParam::is_verification).empty());
  EXPECT_TRUE(this->wait_for([&] {
    const std::string now = this->entry();
    return now.empty() || now.find("FAILED") != std::string::npos;
  }));
}

TYPED_TEST(KernelStaleNeighbor, PermanentEntryStaysPermanent) {
  this->enter("permanent");
  this->verify();
  EXPECT_THAT(this->entry(), HasSubstr("PERMANENT"));
}

TYPED_TEST(KernelStaleNeighbor, ConfirmedEntryStaysConfirmed) {
  this->enter("reachable");
  this->verify();
  EXPECT_THAT(this->entry(), HasSubstr("REACHABLE"));
}

TYPED_TEST(KernelStaleNeighbor, NoEntryIsMade) {
  this->verify();
  EXPECT_EQ(this->entry(), "");
}

TYPED_TEST(KernelStaleNeighbor, EntryOfAnActiveInterfaceStaysStale) {
  {
    MutexLock lock(this->interface_->mutex);
    this->interface_->state.active = true;
  }
  this->enter("stale");
  this->verify();
  EXPECT_THAT(this->entry(), HasSubstr("STALE"));
}

TYPED_TEST(KernelStaleNeighbor, EntryOnAnotherInterfaceStaysStale) {
  this->make_second_pair();
  this->enter("stale", this->near2());
  this->verify();
  EXPECT_EQ(this->entry(), "");
  EXPECT_THAT(this->entry_on(this->near2()), HasSubstr("STALE"));
  this->enter("stale");
  this->verify();
  EXPECT_THAT(this->entry(), AnyOf(HasSubstr("DELAY"), HasSubstr("PROBE")));
  EXPECT_THAT(this->entry_on(this->near2()), HasSubstr("STALE"));
}
