// The host's own addresses in a dump.
#include "packets/host_address.h"

#include <gmock/gmock.h>

#include "packets/family.h"
#include "support/dump_messages.h"

namespace {

std::optional<HostAddress> read(const Bytes& bytes) {
  std::span<const uint8_t> rest = bytes;
  const auto message = take_message(rest);
  return message ? read_host_address(*message) : std::nullopt;
}

std::string text_of(const std::optional<HostAddress>& found) {
  return found ? address_to_text(AF_INET6, &found->address) : "none";
}

}  // namespace

TEST(HostAddressTest, Request) {
  const HostAddressRequest request = make_host_address_request();
  EXPECT_EQ(request.header.nlmsg_len, 24u);
  EXPECT_EQ(request.header.nlmsg_type, RTM_GETADDR);
  EXPECT_EQ(request.header.nlmsg_flags, NLM_F_REQUEST | NLM_F_DUMP);
  EXPECT_EQ(request.address.ifa_family, AF_INET6);
  EXPECT_EQ(request.address.ifa_index, 0u);
}

TEST(HostAddressTest, Address) {
  const auto found = read(host_address("2001:db8::7"));
  ASSERT_TRUE(found.has_value());
  EXPECT_EQ(text_of(found), "2001:db8::7");
  EXPECT_EQ(found->ifindex, 7u);
  EXPECT_EQ(found->prefix_length, 64);
  EXPECT_EQ(found->flags, 0u);
}

TEST(HostAddressTest, OwnAddressWhereThereIsAPeer) {
  for (const bool local_first : {false, true}) {
    Bytes bytes = bare_address();
    if (local_first) add_attribute(bytes, IFA_LOCAL, address_bytes("2001:db8::7"));
    add_attribute(bytes, IFA_ADDRESS, address_bytes("2001:db8::99"));
    if (!local_first) add_attribute(bytes, IFA_LOCAL, address_bytes("2001:db8::7"));
    EXPECT_EQ(text_of(read(bytes)), "2001:db8::7");
  }
}

TEST(HostAddressTest, FlagsOfTheAttributeCount) {
  Bytes bytes = bare_address(IFA_F_DEPRECATED);
  add_attribute(bytes, IFA_ADDRESS, address_bytes("2001:db8::7"));
  EXPECT_EQ(read(bytes)->flags, uint32_t{IFA_F_DEPRECATED});
  add_attribute(bytes, IFA_FLAGS, number_bytes(IFA_F_TENTATIVE | IFA_F_STABLE_PRIVACY));
  EXPECT_EQ(read(bytes)->flags, uint32_t{IFA_F_TENTATIVE | IFA_F_STABLE_PRIVACY});
}

TEST(HostAddressTest, OthersAreNone) {
  EXPECT_EQ(text_of(read(bare_address())), "none");
  Bytes bytes = host_address("2001:db8::7");
  bytes[4] = RTM_DELADDR;
  EXPECT_EQ(text_of(read(bytes)), "none");
  bytes = host_address("2001:db8::7");
  bytes[16] = AF_INET;
  EXPECT_EQ(text_of(read(bytes)), "none");
  bytes = bare_address();
  add_attribute(bytes, IFA_ADDRESS, Bytes(15));
  EXPECT_EQ(text_of(read(bytes)), "none");
}

TEST(HostAddressTest, TruncationsAreNone) {
  for_each_truncation(host_address("2001:db8::7"), [](Bytes cut) {
    if (cut.size() >= 16) set(cut, 0, static_cast<uint32_t>(cut.size()));
    EXPECT_EQ(text_of(read(cut)), "none");
  });
}
