#include <gtest/gtest.h>

#include <cerrno>
#include <climits>
#include <cstring>

#include "packets/route_message.h"
#include "support/route_answers.h"

using Kind = RouteAnswer::Kind;

namespace {

const std::string kTarget = "2001:db8::1";
const MacAddress kMac{0x02, 0x11, 0x22, 0x33, 0x44, 0x55};

Bytes empty_request() { return to_bytes(make_neighbor_request(RTM_NEWNEIGH, 0)); }

}  // namespace

TEST(RouteMessageTest, DumpRequest) {
  const NeighborRequest request =
      make_neighbor_request(RTM_GETNEIGH, NLM_F_REQUEST | NLM_F_ROOT | NLM_F_MATCH);
  EXPECT_EQ(request.header.nlmsg_len, 28u);
  EXPECT_EQ(request.header.nlmsg_type, 30);
  EXPECT_EQ(request.header.nlmsg_flags, 0x0301);
  EXPECT_EQ(request.header.nlmsg_seq, 0u);
  EXPECT_EQ(request.header.nlmsg_pid, 0u);
  EXPECT_EQ(request.neighbor.ndm_family, 10);
  const auto bytes = bytes_of(request.neighbor);
  for (size_t i = 1; i < bytes.size(); ++i) EXPECT_EQ(bytes[i], 0) << i;
}

TEST(RouteMessageTest, AttributesArePaddedAndCounted) {
  Bytes message = empty_request();
  ASSERT_TRUE(append_attribute(message, 2, kMac, 40));
  // 28 bytes, and the attribute's 10 rounded up to 12.
  EXPECT_EQ(message.size(), 40u);
  EXPECT_EQ(PacketReader(message).at<uint32_t>(0), 40u);
  EXPECT_EQ(PacketReader(message).at<uint16_t>(28), 10);
  EXPECT_EQ(PacketReader(message).at<uint16_t>(30), 2);
  EXPECT_EQ(PacketReader(message).at<MacAddress>(32), kMac);
  EXPECT_EQ(PacketReader(message).at<uint16_t>(38), 0);
}

TEST(RouteMessageTest, AttributeBeyondTheBoundChangesNothing) {
  Bytes message = empty_request();
  const Bytes before = message;
  EXPECT_FALSE(append_attribute(message, 2, kMac, 39));
  EXPECT_EQ(message, before);
  // A length that its field cannot hold.
  EXPECT_FALSE(append_attribute(message, 2, Bytes(65532), 1 << 20));
  EXPECT_EQ(message, before);
}

TEST(RouteMessageTest, FindsTheTargetAmongOthers) {
  Bytes answer = entry("2001:db8::2", MacAddress{1, 1, 1, 1, 1, 1});
  append(answer, entry(kTarget, kMac));
  append(answer, entry("2001:db8::3", MacAddress{3, 3, 3, 3, 3, 3}));
  const RouteAnswer found = read_route_answer(answer, kTarget);
  EXPECT_EQ(found.kind, Kind::kFound);
  EXPECT_EQ(found.mac, kMac);
}

TEST(RouteMessageTest, EntryWithoutLinkAddressIsSkipped) {
  Bytes answer = entry(kTarget, std::nullopt);
  EXPECT_EQ(read_route_answer(answer, kTarget).kind, Kind::kMore);
  append(answer, done());
  EXPECT_EQ(read_route_answer(answer, kTarget).kind, Kind::kDone);
}

TEST(RouteMessageTest, StateOfTheEntryIsNotLookedAt) {
  for (const uint16_t state : {NUD_NONE, NUD_INCOMPLETE, NUD_STALE, NUD_FAILED, NUD_PERMANENT}) {
    EXPECT_EQ(read_route_answer(entry(kTarget, kMac, state), kTarget).kind, Kind::kFound) << state;
  }
}

TEST(RouteMessageTest, OnlyCanonicalTextMatches) {
  const Bytes answer = entry("2001:db8::ab", kMac);
  EXPECT_EQ(read_route_answer(answer, "2001:db8::ab").kind, Kind::kFound);
  EXPECT_EQ(read_route_answer(answer, "2001:DB8::AB").kind, Kind::kMore);
  EXPECT_EQ(read_route_answer(answer, "2001:0db8::ab").kind, Kind::kMore);
  EXPECT_EQ(read_route_answer(answer, "2001:db8::ab ").kind, Kind::kMore);
  EXPECT_EQ(read_route_answer(answer, "").kind, Kind::kMore);
}

TEST(RouteMessageTest, FirstAttributeOfATypeWins) {
  Bytes answer = entry(kTarget, kMac);
  add_attribute(answer, NDA_LLADDR, MacAddress{9, 9, 9, 9, 9, 9});
  add_attribute(answer, NDA_DST, Bytes(16));
  const RouteAnswer found = read_route_answer(answer, kTarget);
  EXPECT_EQ(found.kind, Kind::kFound);
  EXPECT_EQ(found.mac, kMac);
}

TEST(RouteMessageTest, AttributesOfOtherTypesAreSkipped) {
  Bytes answer = empty_entry(NUD_STALE);
  add_attribute(answer, NDA_UNSPEC, Bytes{1});
  add_attribute(answer, NDA_CACHEINFO, Bytes(16, 0xff));
  add_attribute(answer, 11, Bytes(3, 0xff));
  add_attribute(answer, 0xffff, Bytes());
  add_attribute(answer, NDA_LLADDR, kMac);
  add_attribute(answer, NDA_DST, address_bytes(kTarget));
  EXPECT_EQ(read_route_answer(answer, kTarget).kind, Kind::kFound);
}

TEST(RouteMessageTest, AttributesThatAreTooShortDoNotCount) {
  Bytes short_address = empty_entry(NUD_STALE);
  add_attribute(short_address, NDA_DST, Bytes(4));
  add_attribute(short_address, NDA_LLADDR, kMac);
  EXPECT_EQ(read_route_answer(short_address, "::").kind, Kind::kMore);

  Bytes short_mac = empty_entry(NUD_STALE);
  add_attribute(short_mac, NDA_DST, address_bytes(kTarget));
  add_attribute(short_mac, NDA_LLADDR, Bytes(5));
  EXPECT_EQ(read_route_answer(short_mac, kTarget).kind, Kind::kMore);
}

TEST(RouteMessageTest, WrongAttributeLengthEndsTheAttributes) {
  for (const uint16_t length : {0, 3, 4000}) {
    Bytes answer = empty_entry(NUD_STALE);
    add_attribute(answer, NDA_DST, address_bytes(kTarget));
    add_attribute(answer, NDA_CACHEINFO, Bytes(16));
    set(answer, 48, length);
    add_attribute(answer, NDA_LLADDR, kMac);
    EXPECT_EQ(read_route_answer(answer, kTarget).kind, Kind::kMore) << length;
  }
}

TEST(RouteMessageTest, AcknowledgementAndDoneEndTheAnswer) {
  EXPECT_EQ(read_route_answer(done(), kTarget).kind, Kind::kDone);
  EXPECT_EQ(read_route_answer(error_message(0), kTarget).kind, Kind::kDone);
  // What follows is not looked at.
  Bytes answer = done();
  append(answer, entry(kTarget, kMac));
  EXPECT_EQ(read_route_answer(answer, kTarget).kind, Kind::kDone);
}

TEST(RouteMessageTest, RefusalCarriesTheErrno) {
  const RouteAnswer refused = read_route_answer(error_message(-EEXIST), kTarget);
  EXPECT_EQ(refused.kind, Kind::kRefused);
  EXPECT_EQ(refused.error, EEXIST);
  EXPECT_EQ(read_route_answer(error_message(5), kTarget).error, -5);
  // Has no positive counterpart.
  EXPECT_EQ(read_route_answer(error_message(INT_MIN), kTarget).kind, Kind::kRefused);
}

TEST(RouteMessageTest, WrongMessageLengthEndsTheRead) {
  for (const uint32_t length : {0U, 15U, 77U, 0x7fffffffU, 0xffffffffU}) {
    Bytes answer = entry("2001:db8::2", kMac);
    const size_t size = answer.size();
    set(answer, 0, length == 77U ? static_cast<uint32_t>(size) + 1000 : length);
    append(answer, entry(kTarget, kMac));
    EXPECT_EQ(read_route_answer(answer, kTarget).kind, Kind::kMore) << length;
  }
}

TEST(RouteMessageTest, MessagesAreFoundBehindOneOfOddLength) {
  Bytes odd = done();
  set(odd, 4, uint16_t{RTM_NEWNEIGH});
  odd.resize(17);
  set(odd, 0, uint32_t{17});
  odd.resize(20);
  append(odd, entry(kTarget, kMac));
  EXPECT_EQ(read_route_answer(odd, kTarget).kind, Kind::kFound);
}

TEST(RouteMessageTest, TruncatedAnswerIsNoAnswer) {
  const Bytes whole = entry(kTarget, kMac);
  for_each_truncation(whole, [](Bytes truncated) {
    EXPECT_EQ(read_route_answer(truncated, kTarget).kind, Kind::kMore);
    if (truncated.size() < sizeof(nlmsghdr)) return;
    // The same with a message length that says that all is there.
    set(truncated, 0, static_cast<uint32_t>(truncated.size()));
    const bool complete = truncated.size() >= 28 + 20 + 10;
    EXPECT_EQ(read_route_answer(truncated, kTarget).kind == Kind::kFound, complete);
  });
  for (size_t size = sizeof(nlmsghdr); size < 20; ++size) {
    Bytes truncated = error_message(-EPERM);
    truncated.resize(size);
    set(truncated, 0, static_cast<uint32_t>(size));
    EXPECT_EQ(read_route_answer(truncated, kTarget).kind, Kind::kMore) << size;
  }
}

TEST(RouteMessageTest, UnalignedBytesAreRead) {
  const Bytes answer = entry(kTarget, kMac);
  for (size_t shift = 1; shift < 4; ++shift) {
    Bytes shifted(shift);
    append(shifted, answer);
    const auto bytes = std::span<const uint8_t>(shifted).subspan(shift);
    EXPECT_EQ(read_route_answer(bytes, kTarget).kind, Kind::kFound) << shift;
  }
}

TEST(RouteMessageTest, FlippedBitsAreReadWithinTheAnswer) {
  Bytes answer = entry("2001:db8::2", kMac);
  append(answer, entry(kTarget, kMac));
  const size_t mac_begin = answer.size() - 8;  // two bytes of padding behind it
  const size_t mac_end = answer.size() - 2;
  append(answer, done());
  for_each_flipped_bit(answer, [&](const Bytes& flipped, size_t bit) {
    const size_t i = bit / 8;
    const RouteAnswer read = read_route_answer(flipped, kTarget);
    if (read.kind != Kind::kFound) return;
    EXPECT_EQ(read.mac != kMac, i >= mac_begin && i < mac_end);
  });
}
