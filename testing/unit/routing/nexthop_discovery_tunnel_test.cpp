// Next hops from the peers of tunnels.
#include <arpa/inet.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstring>
#include <deque>

#include "routing/nexthop_discovery.h"
#include "support/model_builder.h"
#include "support/recorded_log.h"
#include "support/wrapped_calls.h"

using testing::ElementsAre;
using testing::IsEmpty;

namespace {

// What getifaddrs answers.
class AddressTable {
 public:
  // An entry; an empty peer means none.
  void add(const char* name, int family, const std::string& peer) {
    Entry& entry = entries_.emplace_back();
    entry.name = name;
    entry.interface.ifa_name = entry.name.data();
    if (peer.empty()) return;
    entry.peer.ss_family = static_cast<sa_family_t>(family);
    void* address = family == AF_INET6
                        ? static_cast<void*>(&reinterpret_cast<sockaddr_in6&>(entry.peer).sin6_addr)
                        : &reinterpret_cast<sockaddr_in&>(entry.peer).sin_addr;
    ASSERT_EQ(inet_pton(family, peer.c_str(), address), 1);
    entry.interface.ifa_dstaddr = reinterpret_cast<sockaddr*>(&entry.peer);
  }

  // A copy as getifaddrs makes it, in one block that freeifaddrs takes.
  int answer(ifaddrs** result) const {
    *result = nullptr;
    if (entries_.empty()) return 0;
    auto* copy = static_cast<Block*>(calloc(entries_.size(), sizeof(Block)));
    for (size_t i = 0; i < entries_.size(); ++i) {
      copy[i].interface = entries_[i].interface;
      strncpy(copy[i].name, entries_[i].name.c_str(), sizeof(copy[i].name) - 1);
      copy[i].interface.ifa_name = copy[i].name;
      copy[i].peer = entries_[i].peer;
      if (entries_[i].interface.ifa_dstaddr != nullptr) {
        copy[i].interface.ifa_dstaddr = reinterpret_cast<sockaddr*>(&copy[i].peer);
      }
      if (i > 0) copy[i - 1].interface.ifa_next = &copy[i].interface;
    }
    *result = &copy[0].interface;
    return 0;
  }

 private:
  struct Entry {
    std::string name;
    ifaddrs interface {};
    sockaddr_storage peer{};
  };
  struct Block {
    ifaddrs interface;
    char name[64];
    sockaddr_storage peer;
  };
  std::deque<Entry> entries_;
};

class NexthopDiscoveryTunnelTest : public testing::Test {
 protected:
  void resolve(bool ipv6 = false, const std::string& vrf = kDefaultNamespace) {
    CallHook hook(wrapped::getifaddrs,
                  [this](ifaddrs** result) { return addresses_.answer(result); });
    resolve_tunnel_nexthops(config_, worker_of(ipv6, vrf));
  }

  LBConfig config_;
  AddressTable addresses_;
};

}  // namespace

TEST_F(NexthopDiscoveryTunnelTest, PeerOfTheFamily) {
  LBInterface& interface = add_interface_via(config_, "tun1", "tunnel");
  LBInterface& interface6 = add_interface_via(config_, "tun1", "tunnel", true);
  addresses_.add("tun1", AF_INET6, "2001:db8::2");
  addresses_.add("tun1", AF_INET, "192.0.2.2");
  resolve();
  EXPECT_EQ(found(interface), "192.0.2.2");
  EXPECT_EQ(found(interface6), "");
  resolve(true);
  EXPECT_EQ(found(interface6), "2001:db8::2");
}

TEST_F(NexthopDiscoveryTunnelTest, LongestAddressFits) {
  LBInterface& interface = add_interface_via(config_, "tun1", "tunnel", true);
  const char* const longest = "2001:db8:aaaa:bbbb:cccc:dddd:eeee:ffff";
  addresses_.add("tun1", AF_INET6, longest);
  resolve(true);
  EXPECT_EQ(found(interface), longest);
}

TEST_F(NexthopDiscoveryTunnelTest, FirstQualifyingEntryCounts) {
  LBInterface& interface = add_interface_via(config_, "tun1", "tunnel");
  addresses_.add("tun10", AF_INET, "192.0.2.1");  // another interface
  addresses_.add("tun1", AF_PACKET, "");          // no peer
  addresses_.add("tun1", AF_INET, "");
  addresses_.add("tun1", AF_INET6, "2001:db8::2");
  addresses_.add("tun1", AF_INET, "192.0.2.3");
  addresses_.add("tun1", AF_INET, "192.0.2.4");
  resolve();
  EXPECT_EQ(found(interface), "192.0.2.3");
}

TEST_F(NexthopDiscoveryTunnelTest, SearchIsByKeyNotOrigin) {
  LBInterface& interface = add_interface_via(config_, "tun1", "tunnel");
  interface.origin = "tun2";
  addresses_.add("tun2", AF_INET, "192.0.2.2");
  addresses_.add("tun1", AF_INET, "192.0.2.1");
  resolve();
  EXPECT_EQ(found(interface), "192.0.2.1");
}

TEST_F(NexthopDiscoveryTunnelTest, VanishedTunnelLosesItsPeerInSilence) {
  LBInterface& interface = add_interface_via(config_, "tun1", "tunnel");
  set_found(interface, "192.0.2.2");
  addresses_.add("wan1", AF_INET, "192.0.2.9");
  resolve();
  EXPECT_EQ(found(interface), "");
  EXPECT_THAT(log_records(), IsEmpty());
}

TEST_F(NexthopDiscoveryTunnelTest, RecreatedTunnelIsPickedUp) {
  LBInterface& interface = add_interface_via(config_, "tun1", "tunnel");
  resolve();
  EXPECT_EQ(found(interface), "");
  addresses_.add("tun1", AF_INET, "192.0.2.5");
  resolve();
  EXPECT_EQ(found(interface), "192.0.2.5");
}

TEST_F(NexthopDiscoveryTunnelTest, AddressThatCannotBeFormattedIsWarnedOf) {
  LBInterface& interface = add_interface_via(config_, "tun1", "tunnel");
  interface.origin = "tun1-linux";
  set_found(interface, "192.0.2.2");
  addresses_.add("tun1", AF_INET, "192.0.2.3");
  {
    const Fault fault("inet_ntop", ENOSPC);
    resolve();
  }
  EXPECT_EQ(found(interface), "192.0.2.2");
  EXPECT_THAT(log_records(),
              ElementsAre(LoggedWarning("Failed to get P-t-P destination from tunnel "
                                        "interface tun1-linux")));
}

TEST_F(NexthopDiscoveryTunnelTest, FormatWarningIsBehindItsFlag) {
  set_log_flag(2, false);
  add_interface_via(config_, "tun1", "tunnel");
  addresses_.add("tun1", AF_INET, "192.0.2.3");
  const Fault fault("inet_ntop", ENOSPC);
  resolve();
  EXPECT_THAT(log_records(), IsEmpty());
}

TEST_F(NexthopDiscoveryTunnelTest, FailedSnapshotChangesNothing) {
  LBInterface& interface = add_interface_via(config_, "tun1", "tunnel");
  set_found(interface, "192.0.2.2");
  const Fault fault("getifaddrs", ENOMEM);
  resolve();
  EXPECT_EQ(found(interface), "192.0.2.2");
  EXPECT_THAT(log_records(),
              ElementsAre(LoggedWarning("Failed to read the interface addresses, errno = 12")));
}

TEST_F(NexthopDiscoveryTunnelTest, OneSnapshotServesTheWholePass) {
  add_interface_via(config_, "tun1", "tunnel");
  add_interface_via(config_, "tun2", "tunnel");
  resolve();
  EXPECT_EQ(call_count("getifaddrs"), 1);
}

TEST_F(NexthopDiscoveryTunnelTest, NoTunnelNeedsNoSnapshot) {
  add_interface_via(config_, "wan1", "dhcp");
  add_interface_via(config_, "tun1", "tunnel").vrf = "red";
  add_interface_via(config_, "tun2", "tunnel", true);
  resolve();
  EXPECT_EQ(call_count("getifaddrs"), 0);
}

TEST_F(NexthopDiscoveryTunnelTest, LiteralAndDhcpAreNotTouched) {
  LBInterface& literal = add_interface_via(config_, "wan1", "192.0.2.1");
  LBInterface& dhcp = add_interface_via(config_, "wan2", "dhcp");
  set_found(dhcp, "192.0.2.7");
  addresses_.add("wan1", AF_INET, "192.0.2.8");
  addresses_.add("wan2", AF_INET, "192.0.2.8");
  resolve();
  EXPECT_EQ(literal.nexthop, "192.0.2.1");
  EXPECT_EQ(found(literal), "");
  EXPECT_EQ(found(dhcp), "192.0.2.7");
}

// The worker of another VRF sees other interfaces and must not take this tunnel's peer away.
TEST_F(NexthopDiscoveryTunnelTest, OtherVrfsTunnelsAreLeftAlone) {
  LBInterface& interface = add_interface_via(config_, "tun1", "tunnel");
  interface.vrf = "red";
  set_found(interface, "192.0.2.2");
  resolve();
  EXPECT_EQ(found(interface), "192.0.2.2");
  resolve(false, "red");
  EXPECT_EQ(found(interface), "");
}

TEST_F(NexthopDiscoveryTunnelTest, NoLockIsHeldOverTheSnapshot) {
  LBInterface& interface = add_interface_via(config_, "tun1", "tunnel");
  bool was_free = false;
  CallHook hook(wrapped::getifaddrs, [&](ifaddrs** result) {
    if (interface.mutex.try_lock()) {
      was_free = true;
      interface.mutex.unlock();
    }
    return wrapped::getifaddrs.real(result);
  });
  resolve_tunnel_nexthops(config_, worker_of(false));
  EXPECT_TRUE(was_free);
}
