// What the neighbour prober's receiver lets in, and what ends it.
#include <fcntl.h>

#include "support/link_fixture.h"

using testing::ElementsAre;
using testing::IsEmpty;
using testing::Pair;

namespace {

class NeighborProberReceiverTest : public LinkFixture<Neighbor> {
 protected:
  NeighborProberReceiverTest() : prober_(make_prober()) {}

  std::unique_ptr<LBNeighbor> prober_;
};

}  // namespace

TEST_F(NeighborProberReceiverTest, KernelFilterPassesAdvertisementsOnly) {
  const FileDescriptor fd = kNeighborProtocol.open_receiver();
  ASSERT_TRUE(fd.valid());
  const auto passes = [&](const Bytes& frame) {
    network_.deliver_frame(htons(ETH_P_IPV6), frame);
    Bytes buffer(2000);
    return recv(fd.get(), buffer.data(), buffer.size(), MSG_DONTWAIT) ==
           static_cast<ssize_t>(frame.size());
  };
  EXPECT_TRUE(passes(Neighbor::reply()));
  const Bytes advertisement = advertisement_frame();
  EXPECT_TRUE(passes(advertisement));
  // UDP, fragments, options in front: their bytes may look like an advertisement.
  for (const uint8_t next_header : {0, 1, 6, 17, 43, 44, 59, 60, 255}) {
    Bytes other = advertisement;
    other[20] = next_header;
    EXPECT_FALSE(passes(other)) << int{next_header};
  }
  for (const uint8_t hop_limit : {0, 1, 64, 254}) {
    Bytes from_afar = advertisement;
    from_afar[21] = hop_limit;
    EXPECT_FALSE(passes(from_afar)) << int{hop_limit};
  }
  Bytes long_frame = Neighbor::reply();
  long_frame.resize(1500);
  EXPECT_TRUE(passes(long_frame)) << "must come uncut";
  EXPECT_FALSE(passes(Arp::reply()));
  Bytes solicitation = Neighbor::reply();
  solicitation[54] = 135;
  EXPECT_FALSE(passes(solicitation));
  Bytes ipv4 = Neighbor::reply();
  ipv4[12] = 0x08, ipv4[13] = 0x00;
  EXPECT_FALSE(passes(ipv4));
  EXPECT_FALSE(passes(Bytes(54, 0x86)));
  EXPECT_FALSE(passes(Bytes(1)));
}

TEST_F(NeighborProberReceiverTest, WorksWithoutKernelFilter) {
  Fault fault("setsockopt", EPERM);
  listen(*prober_);
  receive({Arp::reply(), Neighbor::reply()});
  EXPECT_THAT(prober_->targets().snapshot(),
              ElementsAre(Pair(Target{Neighbor::kTarget, "eth0"}, false)));
}

TEST_F(NeighborProberReceiverTest, AdvertisementWithoutTextEndsTheReceiver) {
  listen(*prober_);
  CapturedStderr output;
  Fault fault("inet_ntop", ENOSPC, 0, 1);
  receive({Neighbor::reply(1), Neighbor::reply(2)});
  EXPECT_EQ(output.text(), "inet_ntop() failed.\nError message: No space left on device");
  EXPECT_EQ(call_count("recvfrom"), 1);
  EXPECT_THAT(prober_->targets().snapshot(), IsEmpty());
  EXPECT_EQ(fcntl(network_.sockets.back().fd, F_GETFD), -1) << "the socket is closed";
  EXPECT_THAT(log_records(), IsEmpty());
}

// What the kernel refuses is no reason to stop listening.
TEST_F(NeighborProberReceiverTest, RefusedEntryIsFollowedByTheNext) {
  network_.netlink_answers = {error_message(-EEXIST)};
  prober_->set_target(Neighbor::kTarget, Neighbor::kSource, "eth0");
  prober_->set_target(Neighbor::kOther, Neighbor::kSource, "eth0");
  listen(*prober_);
  receive({Neighbor::reply(9), Neighbor::reply(7)});
  EXPECT_THAT(network_.netlink_requests, testing::SizeIs(2));
  EXPECT_THAT(log_records(), ElementsAre(LoggedError("RTNETLINK answers: File exists\n"),
                                         LoggedError("RTNETLINK answers: File exists\n")));
}
