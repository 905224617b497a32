// Which frames on a link the kernel hands to the receiver of neighbour advertisements.
#include <gmock/gmock.h>
#include <linux/if_packet.h>

#include "packets/neighbor_discovery.h"
#include "support/packet_bytes.h"
#include "tests/link/neighbor_prober.h"
#include "veth_test.h"

using testing::ElementsAre;

namespace {

// Told from others by the last byte of its hardware address.
Bytes advertisement(uint8_t mark) {
  Bytes frame = advertisement_frame();
  frame.back() = mark;
  return frame;
}

class KernelNeighborFilter : public VethTest {
 protected:
  // The marks of what passes of `frames` and a good one behind them, which has the mark 0xff.
  std::vector<uint8_t> passed(const std::vector<Bytes>& frames) {
    const FileDescriptor fd = kNeighborProtocol.open_receiver();
    EXPECT_TRUE(fd.valid());
    for (const Bytes& frame : frames) send_from_far_end(frame);
    send_from_far_end(advertisement(0xff));
    std::vector<uint8_t> marks;
    wait_for([&] {
      for (;;) {
        Bytes frame(2000);
        sockaddr_ll from{};
        socklen_t size = sizeof(from);
        const ssize_t length = recvfrom(fd.get(), frame.data(), frame.size(), MSG_DONTWAIT,
                                        reinterpret_cast<sockaddr*>(&from), &size);
        if (length < 0) return !marks.empty() && marks.back() == 0xff;
        const bool arrived = from.sll_ifindex == static_cast<int>(if_nametoindex(near().c_str()));
        if (arrived && length >= 86) marks.push_back(frame[85]);
      }
    });
    return marks;
  }

  static Bytes changed(uint8_t mark, size_t offset, uint8_t value) {
    Bytes frame = advertisement(mark);
    frame[offset] = value;
    return frame;
  }
};

}  // namespace

TEST_F(KernelNeighborFilter, PassesAdvertisements) {
  EXPECT_THAT(passed({advertisement(1), advertisement(2)}), ElementsAre(1, 2, 0xff));
}

TEST_F(KernelNeighborFilter, RefusesOtherProtocols) {
  EXPECT_THAT(passed({changed(1, 20, 17), changed(2, 20, 0), changed(3, 20, 44), changed(4, 20, 60),
                      changed(5, 20, 6), changed(6, 20, 43)}),
              ElementsAre(0xff));
}

TEST_F(KernelNeighborFilter, RefusesWhatComesFromAfar) {
  EXPECT_THAT(
      passed({changed(1, 21, 254), changed(2, 21, 64), changed(3, 21, 1), changed(4, 21, 0)}),
      ElementsAre(0xff));
}

TEST_F(KernelNeighborFilter, RefusesOtherMessages) {
  EXPECT_THAT(passed({changed(1, 54, 135), changed(2, 54, 134), changed(3, 54, 129),
                      changed(4, 13, 0x00), changed(5, 12, 0x08)}),
              ElementsAre(0xff));
}

// Options are the parser's: what passes here is looked at again.
TEST_F(KernelNeighborFilter, ParserRefusesWhatPassesWithoutTheOption) {
  const std::vector<Bytes> frames{changed(1, 78, 1), changed(2, 79, 2), changed(3, 80, 0x07)};
  EXPECT_THAT(passed(frames), ElementsAre(1, 2, 3, 0xff));
  for (const Bytes& frame : frames) EXPECT_FALSE(parse_neighbor_advertisement(frame));
  EXPECT_TRUE(parse_neighbor_advertisement(advertisement(1)));
}
