// The source address of IPv6 probes on an interface that has none configured.
#include "tests/link/source_address.h"

#include "support/echo_fixture.h"

using testing::ElementsAre;
using testing::IsEmpty;

namespace {

class SourceAddressTest : public testing::Test {
 protected:
  using Addresses = std::vector<std::pair<std::string, std::string>>;

  std::string find(const Addresses& addresses, const std::string& ifname = "eth0") {
    network_.addresses = addresses;
    HostAddresses list;
    return link_local_source(list, ifname);
  }

  FakeNetwork network_;
};

}  // namespace

TEST_F(SourceAddressTest, FirstOfTheInterface) {
  EXPECT_EQ(find({{"eth0", "fe80::1"}, {"eth0", "fe80::2"}}), "fe80::1");
}

TEST_F(SourceAddressTest, GlobalAddressesAreSkipped) {
  EXPECT_EQ(find({{"eth0", "2001:db8::1"}, {"eth0", "fe80::2"}}), "fe80::2");
}

TEST_F(SourceAddressTest, TestIsLoose) {
  EXPECT_EQ(find({{"eth0", "fec0::1"}}), "fec0::1");   // first byte fe
  EXPECT_EQ(find({{"eth0", "fe01::1"}}), "fe01::1");   // first byte fe
  EXPECT_EQ(find({{"eth0", "2080::1"}}), "2080::1");   // second byte 80
  EXPECT_EQ(find({{"eth0", "ff80::1"}}), "ff80::1");   // second byte 80
  EXPECT_EQ(find({{"eth0", "fd81::1"}}), "::");        // neither
  EXPECT_EQ(find({{"eth0", "2001:80::fe80"}}), "::");  // neither in its place
  EXPECT_EQ(find({{"eth0", "8000::1"}, {"eth0", "::"}}), "::");
}

TEST_F(SourceAddressTest, NameIsComparedOverItsOwnLength) {
  EXPECT_EQ(find({{"eth00", "fe80::1"}, {"eth0", "fe80::2"}}), "fe80::1");
  EXPECT_EQ(find({{"eth0.100", "fe80::3"}}), "fe80::3");
  EXPECT_EQ(find({{"eth", "fe80::4"}}), "::");
  EXPECT_EQ(find({{"xeth0", "fe80::5"}}), "::");
  EXPECT_EQ(find({{"Eth0", "fe80::6"}}), "::");
}

TEST_F(SourceAddressTest, OtherFamiliesAndBareInterfacesAreSkipped) {
  EXPECT_EQ(find({{"eth0", ""}, {"eth0", "192.0.2.1"}, {"eth0", "fe80::7"}}), "fe80::7");
}

TEST_F(SourceAddressTest, NoneIsAllZero) {
  EXPECT_EQ(find({}), "::");
  EXPECT_EQ(find({{"eth1", "fe80::1"}}), "::");
  EXPECT_THAT(log_records(), IsEmpty());
}

TEST_F(SourceAddressTest, ListThatCannotBeRead) {
  Fault fault("getifaddrs", ENOMEM);
  EXPECT_EQ(find({{"eth0", "fe80::1"}}), "::");
  EXPECT_THAT(log_records(), ElementsAre(LoggedError("getifaddrs")));
}

TEST_F(SourceAddressTest, AddressThatCannotBeFormatted) {
  Fault fault("inet_ntop", ENOSPC);
  EXPECT_EQ(find({{"eth0", "fe80::1"}}), "");
  EXPECT_THAT(log_records(), ElementsAre(LoggedError("inet_ntop failed! No space left on device")));
}

TEST_F(SourceAddressTest, FailedListOfInterfacesIsLogged) {
  Fault fault("getifaddrs", ENOMEM);
  HostAddresses list;
  EXPECT_FALSE(address_on_interface(list, "lo", "127.0.0.1"));
  EXPECT_THAT(log_records(), ElementsAre(LoggedError("getifaddrs failed")));
}
