// Route-netlink requests to the kernel itself.
#include "tests/link/route_netlink.h"

#include <arpa/inet.h>
#include <gmock/gmock.h>

#include "support/recorded_log.h"
#include "veth_test.h"

using testing::ElementsAre;
using testing::IsEmpty;

namespace {

const MacAddress kMac{0x06, 0xaa, 0xbb, 0xcc, 0xdd, 0xee};

class KernelRouteNetlink : public VethTest {
 protected:
  void add(const std::string& address, const std::string& mac) {
    run("ip -6 neigh add " + address + " lladdr " + mac + " dev " + near());
  }

  unsigned index() const { return if_nametoindex(near().c_str()); }
};

}  // namespace

TEST_F(KernelRouteNetlink, FindsTheEntry) {
  add("2001:db8:a::1", "06:00:00:00:00:01");
  add("2001:db8:a::2", "06:aa:bb:cc:dd:ee");
  add("2001:db8:a::3", "06:00:00:00:00:03");
  MacAddress mac{};
  EXPECT_EQ(get_neighbor_mac("2001:db8:a::2", index(), &mac), 1);
  EXPECT_EQ(mac, kMac);
  EXPECT_EQ(get_neighbor_mac("2001:db8:a::2", index(), nullptr), -1);
  EXPECT_THAT(log_records(), IsEmpty());
}

TEST_F(KernelRouteNetlink, FindsTheEntryOfTheInterface) {
  make_second_pair();
  const unsigned second = if_nametoindex(near2().c_str());
  for (const std::string address : {"fe80::1", "2001:db8:13::1"}) {
    add(address, "06:00:00:00:00:01");
    run("ip -6 neigh add " + address + " lladdr 06:00:00:00:00:02 dev " + near2());
    MacAddress mac{};
    EXPECT_EQ(get_neighbor_mac(address, index(), &mac), 1);
    EXPECT_EQ(mac, (MacAddress{0x06, 0, 0, 0, 0, 0x01}));
    EXPECT_EQ(get_neighbor_mac(address, second, &mac), 1);
    EXPECT_EQ(mac, (MacAddress{0x06, 0, 0, 0, 0, 0x02}));
    run("ip -6 neigh del " + address + " dev " + near());
    EXPECT_EQ(get_neighbor_mac(address, index(), &mac), 0);
    EXPECT_EQ(get_neighbor_mac(address, second, &mac), 1);
  }
  EXPECT_THAT(log_records(), IsEmpty());
}

TEST_F(KernelRouteNetlink, NoEntry) {
  add("2001:db8:b::1", "06:00:00:00:00:01");
  MacAddress mac{};
  EXPECT_EQ(get_neighbor_mac("2001:db8:b::2", index(), &mac), 0);
  EXPECT_EQ(get_neighbor_mac("no address", index(), &mac), 0);
  EXPECT_THAT(log_records(), IsEmpty());
}

TEST_F(KernelRouteNetlink, TextThatIsNotCanonicalNeverMatches) {
  add("2001:db8:c::ab", "06:aa:bb:cc:dd:ee");
  MacAddress mac{};
  EXPECT_EQ(get_neighbor_mac("2001:db8:c::ab", index(), &mac), 1);
  EXPECT_EQ(get_neighbor_mac("2001:DB8:C::AB", index(), &mac), 0);
  EXPECT_EQ(get_neighbor_mac("2001:0db8:c::ab", index(), &mac), 0);
  EXPECT_EQ(get_neighbor_mac("2001:db8:c:0::ab", index(), &mac), 0);
}

TEST_F(KernelRouteNetlink, EntryWithoutLinkAddressIsSkipped) {
  run("ip addr add 2001:db8:d::9/64 dev " + near() + " nodad");
  // The kernel asks for an address that nobody has.
  const FileDescriptor fd(socket(AF_INET6, SOCK_DGRAM | SOCK_CLOEXEC, 0));
  sockaddr_in6 to{};
  to.sin6_family = AF_INET6;
  to.sin6_port = htons(9);
  ASSERT_EQ(inet_pton(AF_INET6, "2001:db8:d::2", &to.sin6_addr), 1);
  ASSERT_EQ(sendto(fd.get(), "", 1, 0, reinterpret_cast<sockaddr*>(&to), sizeof(to)), 1);
  run("ip -6 neigh show to 2001:db8:d::2 nud all | grep -q INCOMPLETE");
  MacAddress mac{};
  EXPECT_EQ(get_neighbor_mac("2001:db8:d::2", index(), &mac), 0);
}

TEST_F(KernelRouteNetlink, FindsTheEntryInALongAnswer) {
  // More than one read holds.
  run("for i in $(seq 1500); do printf 'neigh add 2001:db8:e::%x lladdr 06:00:00:00:%02x:%02x "
      "dev " +
      near() + "\\n' $i $((i / 256)) $((i % 256)); done | ip -6 -batch -");
  MacAddress mac{};
  for (const int host : {1, 750, 1500}) {
    char text[40];
    std::snprintf(text, sizeof(text), "2001:db8:e::%x", host);
    EXPECT_EQ(get_neighbor_mac(text, index(), &mac), 1) << text;
    EXPECT_EQ(mac, (MacAddress{0x06, 0, 0, 0, static_cast<uint8_t>(host / 256),
                               static_cast<uint8_t>(host % 256)}));
  }
  EXPECT_EQ(get_neighbor_mac("2001:db8:e::ffff", index(), &mac), 0);
}

TEST_F(KernelRouteNetlink, EnteredNeighborIsFound) {
  EXPECT_EQ(add_neighbor_entry("2001:db8:f::1", kMac, near()), 0);
  MacAddress mac{};
  EXPECT_EQ(get_neighbor_mac("2001:db8:f::1", index(), &mac), 1);
  EXPECT_EQ(mac, kMac);
  run("ip -6 neigh show to 2001:db8:f::1 dev " + near() + " | grep -q REACHABLE");
  EXPECT_THAT(log_records(), IsEmpty());
}

TEST_F(KernelRouteNetlink, EntryIsNotReplaced) {
  add("2001:db8:10::1", "06:00:00:00:00:01");
  EXPECT_EQ(add_neighbor_entry("2001:db8:10::1", kMac, near()), 0);
  MacAddress mac{};
  EXPECT_EQ(get_neighbor_mac("2001:db8:10::1", index(), &mac), 1);
  EXPECT_EQ(mac, (MacAddress{0x06, 0, 0, 0, 0, 0x01}));
}

TEST_F(KernelRouteNetlink, RefusalIsLogged) {
  // Too small for IPv6, so the interface has none.
  run("ip link set " + near() + " mtu 1000");
  EXPECT_EQ(add_neighbor_entry("2001:db8:11::1", kMac, near()), -1);
  EXPECT_THAT(log_records(), ElementsAre(LoggedError("RTNETLINK answers: Invalid argument\n")));
}

TEST_F(KernelRouteNetlink, NoInterface) {
  EXPECT_EQ(add_neighbor_entry("2001:db8:12::1", kMac, "lbnone"), -1);
  EXPECT_THAT(
      log_records(),
      ElementsAre(LoggedError("if_nametoindex() failed to obtain interface index No such device")));
}
