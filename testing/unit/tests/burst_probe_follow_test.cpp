// A burst without a target on an interface whose next hop is followed.
#include "support/burst_fixture.h"

using testing::ElementsAre;
using testing::Pair;
using namespace std::chrono_literals;

namespace {

class BurstProbeFollowTest : public BurstFixture {
 protected:
  BurstProbeFollowTest() {
    interface_.nexthop = "kernel";
    test_.set_target("");
    test_.set_number(TestKeyword::kCount, 1);
    answer_ = [this](size_t, const Bytes& request) {
      arrive(1ms, reply_to(request), nexthop_.c_str());
    };
  }

  void find_nexthop(const std::string& address) {
    nexthop_ = address;
    MutexLock lock(interface_.mutex);
    interface_.state.nexthop_address = address;
  }

  std::string nexthop_;
};

}  // namespace

TEST_F(BurstProbeFollowTest, WhatHasSettledGoesOverBetweenTwoBursts) {
  find_nexthop("192.0.2.254");
  send();
  EXPECT_THAT(state().success_counts, ElementsAre(Pair("192.0.2.254", 1)));
  find_nexthop("192.0.2.253");
  const size_t sent = network_.sent.size();
  send();
  EXPECT_EQ(network_.sent.size(), sent) << "the period is not over";
  EXPECT_EQ(test_.report().target, "192.0.2.253");
  EXPECT_THAT(state().target_results, ElementsAre(Pair("192.0.2.253", -1)));
  EXPECT_THAT(state().success_counts, ElementsAre(Pair("192.0.2.253", 1)));
  virtual_clock::advance(240s);
  send();
  EXPECT_THAT(state().success_counts, ElementsAre(Pair("192.0.2.253", 2)));
}

TEST_F(BurstProbeFollowTest, OtherwiseTheFirstIsKept) {
  interface_.nexthop = "dhcp";
  find_nexthop("192.0.2.254");
  send();
  find_nexthop("192.0.2.253");
  send();
  EXPECT_EQ(test_.report().target, "192.0.2.254");
  EXPECT_THAT(state().success_counts, ElementsAre(Pair("192.0.2.254", 1)));
}
