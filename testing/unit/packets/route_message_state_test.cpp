// The state of a neighbour as the kernel tells it.
#include <gtest/gtest.h>

#include <cerrno>

#include "packets/route_message.h"
#include "support/route_answers.h"

namespace {

const Bytes kEntry = entry("2001:db8::1", MacAddress{2, 0, 0, 0, 0, 1}, NUD_STALE);

}  // namespace

TEST(RouteMessageStateTest, StateOfTheEntry) {
  for (const uint16_t state : {NUD_NONE, NUD_INCOMPLETE, NUD_REACHABLE, NUD_STALE, NUD_DELAY,
                               NUD_PROBE, NUD_FAILED, NUD_NOARP, NUD_PERMANENT}) {
    Bytes answer = kEntry;
    set(answer, 24, state);
    EXPECT_EQ(read_neighbor_state(answer), state);
  }
  EXPECT_EQ(read_neighbor_state(empty_entry(NUD_FAILED)), NUD_FAILED) << "without attributes";
}

TEST(RouteMessageStateTest, OtherMessagesTellNone) {
  EXPECT_EQ(read_neighbor_state(done()), std::nullopt);
  EXPECT_EQ(read_neighbor_state(error_message(-ENOENT)), std::nullopt);
  EXPECT_EQ(read_neighbor_state(error_message(0)), std::nullopt);
  for (const uint16_t type : {RTM_DELNEIGH, RTM_GETNEIGH, RTM_NEWROUTE}) {
    Bytes answer = kEntry;
    set(answer, 4, type);
    EXPECT_EQ(read_neighbor_state(answer), std::nullopt) << type;
  }
}

TEST(RouteMessageStateTest, CutMessageTellsNone) {
  for_each_truncation(kEntry, [](const Bytes& cut) {
    EXPECT_EQ(read_neighbor_state(cut).has_value(), cut.size() >= 28);
  });
}

TEST(RouteMessageStateTest, EveryBitIsReadWithinTheAnswer) {
  for_each_flipped_bit(kEntry, [](const Bytes& flipped, size_t bit) {
    const auto state = read_neighbor_state(flipped);
    const size_t i = bit / 8;
    EXPECT_EQ(state.has_value(), i != 4 && i != 5);
    if (!state) return;
    EXPECT_EQ(*state != NUD_STALE, i == 24 || i == 25);
  });
}
