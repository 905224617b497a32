// How far an answer is walked: message types, lengths at their limits, attributes behind a message.
#include <gtest/gtest.h>

#include "packets/route_message.h"
#include "support/route_answers.h"

using Kind = RouteAnswer::Kind;

namespace {

const std::string kTarget = "2001:db8::1";
const MacAddress kMac{0x02, 0x11, 0x22, 0x33, 0x44, 0x55};

}  // namespace

TEST(RouteMessageWalkTest, EveryOtherMessageIsTakenForANeighbour) {
  for (const uint16_t type : {0, 1, 4, 16, 20, 28, 29, 30, 0xffff}) {
    Bytes answer = entry(kTarget, kMac);
    set(answer, 4, type);
    const RouteAnswer found = read_route_answer(answer, kTarget);
    EXPECT_EQ(found.kind, Kind::kFound) << type;
    EXPECT_EQ(found.mac, kMac) << type;
  }
}

TEST(RouteMessageWalkTest, FamilyOfTheEntryIsNotLookedAt) {
  Bytes answer = entry(kTarget, kMac);
  answer[16] = AF_INET;
  EXPECT_EQ(read_route_answer(answer, kTarget).kind, Kind::kFound);
  EXPECT_EQ(read_route_answer(answer, kTarget, 7).kind, Kind::kFound);
}

TEST(RouteMessageWalkTest, EntryIsThatOfTheInterface) {
  Bytes answer = entry(kTarget, MacAddress{2, 0, 0, 0, 0, 8});
  set(answer, 20, int32_t{8});
  EXPECT_EQ(read_route_answer(answer, kTarget, 7).kind, Kind::kMore);
  EXPECT_EQ(read_route_answer(answer, kTarget, 9).kind, Kind::kMore);
  EXPECT_EQ(read_route_answer(answer, kTarget, 8).kind, Kind::kFound);
  EXPECT_EQ(read_route_answer(answer, kTarget).kind, Kind::kFound) << "of any";
  append(answer, entry(kTarget, kMac));  // on 7
  const RouteAnswer found = read_route_answer(answer, kTarget, 7);
  EXPECT_EQ(found.kind, Kind::kFound);
  EXPECT_EQ(found.mac, kMac);
  // Indices are as wide as the field.
  set(answer, 20, int32_t{0x10007});
  EXPECT_NE(read_route_answer(answer, kTarget, 7).mac, (MacAddress{2, 0, 0, 0, 0, 8}));
}

// What ends an answer concerns every interface.
TEST(RouteMessageWalkTest, EndOfTheAnswerHasNoInterface) {
  EXPECT_EQ(read_route_answer(done(), kTarget, 7).kind, Kind::kDone);
  EXPECT_EQ(read_route_answer(error_message(-EPERM), kTarget, 7).kind, Kind::kRefused);
}

TEST(RouteMessageWalkTest, HeaderAloneIsAMessage) {
  EXPECT_EQ(read_route_answer(netlink_message(NLMSG_DONE, 16), kTarget).kind, Kind::kDone);
  Bytes answer = netlink_message(NLMSG_NOOP, 16);
  append(answer, entry(kTarget, kMac));
  EXPECT_EQ(read_route_answer(answer, kTarget).kind, Kind::kFound);
  // Fifteen bytes are none.
  Bytes cut = netlink_message(NLMSG_DONE, 16);
  cut.pop_back();
  EXPECT_EQ(read_route_answer(cut, kTarget).kind, Kind::kMore);
}

TEST(RouteMessageWalkTest, LongLinkAddressIsCut) {
  Bytes answer = empty_entry(NUD_STALE);
  add_attribute(answer, NDA_DST, address_bytes(kTarget));
  Bytes address(kMac.begin(), kMac.end());
  address.resize(20, 0xee);
  add_attribute(answer, NDA_LLADDR, address);
  const RouteAnswer found = read_route_answer(answer, kTarget);
  EXPECT_EQ(found.kind, Kind::kFound);
  EXPECT_EQ(found.mac, kMac);
}

TEST(RouteMessageWalkTest, EmptyAttributeFillsItsSlot) {
  Bytes answer = empty_entry(NUD_STALE);
  add_attribute(answer, NDA_DST, address_bytes(kTarget));
  add_attribute(answer, NDA_LLADDR, Bytes());
  add_attribute(answer, NDA_LLADDR, kMac);
  EXPECT_EQ(read_route_answer(answer, kTarget).kind, Kind::kMore);
}

// Attributes start 28 bytes into a message, and may take the message's whole length from there: 28
// bytes beyond its end, where the next message begins.
TEST(RouteMessageWalkTest, AttributesMayReachBeyondTheirMessage) {
  Bytes answer = entry(kTarget, kMac);
  set(answer, 0, uint32_t{48});  // ends behind the address
  const RouteAnswer found = read_route_answer(answer, kTarget);
  EXPECT_EQ(found.kind, Kind::kFound);
  EXPECT_EQ(found.mac, kMac);
}

TEST(RouteMessageWalkTest, AttributesEndWithTheLengthOfTheirMessage) {
  Bytes answer = empty_entry(NUD_STALE);
  add_attribute(answer, NDA_DST, address_bytes(kTarget));
  add_attribute(answer, NDA_CACHEINFO, Bytes(16));
  add_attribute(answer, NDA_LLADDR, kMac);  // bytes 68 to 77, 40 to 49 of the attributes
  set(answer, 0, uint32_t{50});
  EXPECT_EQ(read_route_answer(answer, kTarget).kind, Kind::kFound);
  set(answer, 0, uint32_t{49});
  EXPECT_EQ(read_route_answer(answer, kTarget).kind, Kind::kMore);
}
