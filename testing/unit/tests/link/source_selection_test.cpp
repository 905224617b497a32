// The choice among IPv6 addresses. "Rfc": the examples of RFC 6724 section 10.1, as far as they are
// about what is implemented.
#include "tests/link/source_selection.h"

#include <gtest/gtest.h>

#include "packets/family.h"
#include "support/packet_bytes.h"

namespace {

constexpr unsigned kOut = 7;
constexpr unsigned kOther = 8;

struct Own {
  const char* address;
  unsigned ifindex = kOut;
  uint32_t flags = 0;
  uint8_t prefix_length = 64;
};

std::string choose(const std::string& destination, const std::vector<Own>& own) {
  std::vector<HostAddress> addresses;
  for (const Own& one : own) {
    addresses.push_back({ipv6_address(one.address), one.ifindex, one.prefix_length, one.flags});
  }
  const auto source = select_source(addresses, ipv6_address(destination), kOut);
  return source ? address_to_text(AF_INET6, &*source) : "none";
}

// The choice must not depend on the order.
std::string choose_of_two(const std::string& destination, const Own& a, const Own& b) {
  const std::string first = choose(destination, {a, b});
  const std::string second = choose(destination, {b, a});
  return first == second ? first : first + " or " + second;
}

}  // namespace

TEST(SourceSelectionTest, RfcAppropriateScope) {
  EXPECT_EQ(choose_of_two("2001:db8:1::1", {"2001:db8:3::1"}, {"fe80::1"}), "2001:db8:3::1");
  EXPECT_EQ(choose_of_two("ff05::1", {"2001:db8:3::1"}, {"fe80::1"}), "2001:db8:3::1");
}

TEST(SourceSelectionTest, RfcSameAddress) {
  EXPECT_EQ(
      choose_of_two("2001:db8:1::1", {"2001:db8:1::1", kOut, IFA_F_DEPRECATED}, {"2001:db8:2::1"}),
      "2001:db8:1::1");
}

TEST(SourceSelectionTest, RfcScopeComesBeforeDeprecation) {
  EXPECT_EQ(choose_of_two("fe80::1", {"fe80::2", kOut, IFA_F_DEPRECATED}, {"2001:db8:1::1"}),
            "fe80::2");
}

TEST(SourceSelectionTest, RfcLongestMatchingPrefix) {
  EXPECT_EQ(choose_of_two("2001:db8:1::1", {"2001:db8:1::2"}, {"2001:db8:3::2"}), "2001:db8:1::2");
}

TEST(SourceSelectionTest, RfcMatchingLabel) {
  EXPECT_EQ(choose_of_two("2002:c633:6401::1",
                          {"2002:c633:6401:0:d5e3:7953:13eb:22e8", kOut, IFA_F_TEMPORARY},
                          {"2001:db8:1::2"}),
            "2002:c633:6401:0:d5e3:7953:13eb:22e8");
}

// RFC 6724 prefers the temporary one; it leaves the choice to the implementation.
TEST(SourceSelectionTest, PublicBeforeTemporary) {
  EXPECT_EQ(choose_of_two("2001:db8:1::d5e3:0:0:1", {"2001:db8:1::2"},
                          {"2001:db8:1::d5e3:7953:13eb:22e8", kOut, IFA_F_TEMPORARY}),
            "2001:db8:1::2");
}

TEST(SourceSelectionTest, DeprecatedOnesLast) {
  EXPECT_EQ(
      choose_of_two("2001:db8:1::1", {"2001:db8:1::2", kOut, IFA_F_DEPRECATED}, {"2001:db8:9::2"}),
      "2001:db8:9::2");
  EXPECT_EQ(choose("2001:db8:1::1", {{"2001:db8:1::2", kOut, IFA_F_DEPRECATED}}), "2001:db8:1::2");
}

TEST(SourceSelectionTest, OutgoingInterfaceFirst) {
  EXPECT_EQ(choose_of_two("2001:db8:1::1", {"2001:db8:1::2", kOther}, {"2001:db8:9::2"}),
            "2001:db8:9::2");
  EXPECT_EQ(choose_of_two("2001:db8:1::1", {"2001:db8:1::2", kOther}, {"fe80::2"}), "2001:db8:1::2")
      << "an address of the LAN reaches further than the link";
}

TEST(SourceSelectionTest, LinkLocalAddressesOfOtherInterfacesNever) {
  EXPECT_EQ(choose("2001:db8:1::1", {{"fe80::2", kOther}}), "none");
  EXPECT_EQ(choose("2001:db8:1::1", {{"::1", kOther, 0, 128}}), "none");
  EXPECT_EQ(choose("2001:db8:1::1", {{"fe80::2"}}), "fe80::2");
  EXPECT_EQ(choose("fe80::1", {{"2001:db8:1::2", kOther}}), "none");
}

TEST(SourceSelectionTest, AddressesThatAreNotVerified) {
  EXPECT_EQ(choose("2001:db8:1::1", {{"2001:db8:1::2", kOut, IFA_F_TENTATIVE}}), "none");
  EXPECT_EQ(choose("2001:db8:1::1", {{"2001:db8:1::2", kOut, IFA_F_DADFAILED}}), "none");
  EXPECT_EQ(choose("2001:db8:1::1", {{"2001:db8:1::2", kOut, IFA_F_DADFAILED | IFA_F_OPTIMISTIC}}),
            "none");
  EXPECT_EQ(choose("2001:db8:1::1", {{"2001:db8:1::2", kOut, IFA_F_TENTATIVE | IFA_F_OPTIMISTIC}}),
            "2001:db8:1::2");
}

TEST(SourceSelectionTest, LabelsOfTheDefaultTable) {
  const Own global{"2001:db8:1::2"};
  EXPECT_EQ(choose_of_two("fd00::1", {"fdff::2"}, global), "fdff::2");
  EXPECT_EQ(choose_of_two("2001:db9::1", {"fd00::2"}, global), "2001:db8:1::2");
  EXPECT_EQ(choose_of_two("2001:0:1::1", {"2001:0:9999::2"}, global), "2001:0:9999::2") << "Teredo";
  EXPECT_EQ(choose_of_two("3ffe::1", {"3ffe:ffff::2"}, global), "3ffe:ffff::2");
  EXPECT_EQ(choose_of_two("::ffff:192.0.2.1", {"::ffff:198.51.100.1"}, global),
            "::ffff:198.51.100.1");
  EXPECT_EQ(choose_of_two("::192.0.2.1", {"::198.51.100.1"}, global), "::198.51.100.1");
}

TEST(SourceSelectionTest, MatchIsNoLongerThanThePrefix) {
  EXPECT_EQ(choose("2001:db8:1::1", {{"2001:db8:1::8000"}, {"2001:db8:1::3"}}), "2001:db8:1::8000")
      << "the first of equals";
  EXPECT_EQ(choose_of_two("2001:db8:1::1", {"2001:db8:1::8000", kOut, 0, 128}, {"2001:db8:1::3"}),
            "2001:db8:1::8000");
}

TEST(SourceSelectionTest, WhatIsNoSource) {
  EXPECT_EQ(choose("2001:db8:1::1", {}), "none");
  EXPECT_EQ(choose("2001:db8:1::1", {{"::"}}), "none");
  EXPECT_EQ(choose("2001:db8:1::1", {{"ff02::1"}}), "none");
}
