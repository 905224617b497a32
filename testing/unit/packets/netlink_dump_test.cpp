// Messages and attributes, taken from bytes one by one.
#include "packets/netlink_dump.h"

#include <gmock/gmock.h>

#include <cerrno>

#include "support/dump_messages.h"

using testing::ElementsAre;
using testing::ElementsAreArray;
using testing::IsEmpty;

namespace {

std::span<const uint8_t> view(const Bytes& bytes) { return bytes; }

DumpProgress progress_of(const Bytes& bytes) {
  auto rest = view(bytes);
  const auto message = take_message(rest);
  EXPECT_TRUE(message.has_value());
  return read_progress(message.value_or(NetlinkMessage{}));
}

Bytes attribute(uint16_t length, uint16_t type, const Bytes& data) {
  Bytes bytes(4);
  set(bytes, 0, length);
  set(bytes, 2, type);
  append(bytes, data);
  return bytes;
}

}  // namespace

TEST(NetlinkDumpTest, MessagesOneByOne) {
  Bytes bytes = netlink_message(RTM_NEWROUTE, 19);  // padded to 20
  bytes[16] = 1, bytes[17] = 2, bytes[18] = 3;
  bytes.push_back(0xff);
  append(bytes, netlink_message(NLMSG_DONE, 16));
  auto rest = view(bytes);
  const auto first = take_message(rest);
  ASSERT_TRUE(first.has_value());
  EXPECT_EQ(first->header.nlmsg_type, RTM_NEWROUTE);
  EXPECT_THAT(first->payload, ElementsAre(1, 2, 3));
  const auto second = take_message(rest);
  ASSERT_TRUE(second.has_value());
  EXPECT_EQ(second->header.nlmsg_type, NLMSG_DONE);
  EXPECT_THAT(second->payload, IsEmpty());
  EXPECT_THAT(rest, IsEmpty());
  EXPECT_FALSE(take_message(rest).has_value());
}

TEST(NetlinkDumpTest, LastPaddingMayBeMissing) {
  const Bytes bytes = netlink_message(RTM_NEWROUTE, 17);
  auto rest = view(bytes);
  EXPECT_TRUE(take_message(rest).has_value());
  EXPECT_THAT(rest, IsEmpty());
}

TEST(NetlinkDumpTest, LengthThatCannotBeRightEndsTheWalk) {
  for (const uint32_t length : {0U, 15U, 21U, 0xffffffffU}) {
    Bytes bytes(20);
    set(bytes, 0, length);
    auto rest = view(bytes);
    EXPECT_FALSE(take_message(rest).has_value()) << length;
    EXPECT_EQ(rest.size(), 20u) << length;
  }
}

TEST(NetlinkDumpTest, TruncatedMessagesAreNone) {
  for_each_truncation(default_route("192.0.2.1", 7), [](const Bytes& bytes) {
    auto rest = view(bytes);
    EXPECT_FALSE(take_message(rest).has_value());
  });
}

TEST(NetlinkDumpTest, AttributesOneByOne) {
  Bytes bytes = attribute(5, RTA_PREF, {1, 0, 0, 0});
  append(bytes, attribute(8, RTA_OIF | NLA_F_NESTED, {1, 2, 3, 4}));
  append(bytes, attribute(4, RTA_TABLE, {}));
  auto rest = view(bytes);
  auto taken = take_attribute(rest);
  ASSERT_TRUE(taken.has_value());
  EXPECT_EQ(taken->type, RTA_PREF);
  EXPECT_THAT(taken->data, ElementsAre(1));
  taken = take_attribute(rest);
  ASSERT_TRUE(taken.has_value());
  EXPECT_EQ(taken->type, RTA_OIF);
  EXPECT_THAT(taken->data, ElementsAre(1, 2, 3, 4));
  taken = take_attribute(rest);
  ASSERT_TRUE(taken.has_value());
  EXPECT_THAT(taken->data, IsEmpty());
  EXPECT_FALSE(take_attribute(rest).has_value());
}

TEST(NetlinkDumpTest, AttributeLengthsThatCannotBeRight) {
  for (const uint16_t length : {0, 3, 9, 0xffff}) {
    const Bytes bytes = attribute(length, RTA_OIF, {1, 2, 3, 4});
    auto rest = view(bytes);
    EXPECT_FALSE(take_attribute(rest).has_value()) << length;
  }
}

TEST(NetlinkDumpTest, Progress) {
  using Kind = DumpProgress::Kind;
  EXPECT_EQ(progress_of(default_route("192.0.2.1", 7)).kind, Kind::kEntry);
  EXPECT_EQ(progress_of(dump_end()).kind, Kind::kDone);
  EXPECT_EQ(progress_of(netlink_message(NLMSG_DONE, 16)).kind, Kind::kDone);
  EXPECT_EQ(progress_of(error_message(0)).kind, Kind::kDone);
  for (const Bytes& refusal : {error_message(-EPERM), dump_end(0, -EPERM)}) {
    const DumpProgress progress = progress_of(refusal);
    EXPECT_EQ(progress.kind, Kind::kRefused);
    EXPECT_EQ(progress.error, EPERM);
  }
}

TEST(NetlinkDumpTest, InterruptionIsTold) {
  EXPECT_TRUE(progress_of(dump_end(NLM_F_MULTI | NLM_F_DUMP_INTR)).interrupted);
  EXPECT_FALSE(progress_of(dump_end(NLM_F_MULTI)).interrupted);
  Bytes route = default_route("192.0.2.1", 7);
  set(route, 6, uint16_t{NLM_F_DUMP_INTR});
  EXPECT_TRUE(progress_of(route).interrupted);
}
