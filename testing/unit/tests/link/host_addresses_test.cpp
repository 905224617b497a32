// The host's addresses: how long a list is kept, and what is found in it.
#include "tests/link/host_addresses.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <linux/netlink.h>
#include <linux/rtnetlink.h>

#include "support/fake_network.h"

namespace {

class HostAddressesTest : public testing::Test {
 protected:
  // The text of the first address of the family on an interface whose name begins so; "none".
  std::string first(const std::string& beginning, int family = AF_INET6) {
    const InterfaceAddress* const found = list_.find(
        beginning, [family](const InterfaceAddress& each) { return each.family == family; });
    char text[INET6_ADDRSTRLEN];
    return found == nullptr ? "none" : inet_ntop(family, &found->bytes, text, sizeof(text));
  }

  // The kernel tells of a change.
  void tell() {
    const auto changes = network_.last_socket(AF_NETLINK, SOCK_RAW, NETLINK_ROUTE);
    ASSERT_NE(changes.fd, -1);
    FakeNetwork::deliver(changes, FakeNetwork::Bytes(40));
  }

  FakeNetwork network_;
  HostAddresses list_;
};

}  // namespace

TEST_F(HostAddressesTest, IsReadOnceAndThenAfterEachChange) {
  network_.addresses = {{"eth0", "2001:db8::1"}};
  EXPECT_TRUE(list_.refresh());
  EXPECT_TRUE(list_.refresh());
  EXPECT_EQ(call_count("getifaddrs"), 1);
  EXPECT_EQ(first("eth0"), "2001:db8::1");
  network_.addresses = {{"eth0", "2001:db8::2"}};
  tell();
  tell();
  EXPECT_TRUE(list_.refresh());
  EXPECT_EQ(first("eth0"), "2001:db8::2");
  EXPECT_TRUE(list_.refresh());
  EXPECT_EQ(call_count("getifaddrs"), 2);
}

TEST_F(HostAddressesTest, ChangesOfLinksAndOfAddressesAreListenedFor) {
  list_.refresh();
  ASSERT_EQ(network_.netlink_addresses.size(), 1u);
  EXPECT_EQ(network_.netlink_addresses[0].nl_groups,
            unsigned{RTMGRP_LINK | RTMGRP_IPV4_IFADDR | RTMGRP_IPV6_IFADDR});
  EXPECT_TRUE(network_.sockets[0].close_on_exec);
}

// What changes while it is read is told of, since it is listened for before.
TEST_F(HostAddressesTest, ListensBeforeItReads) {
  int sockets = 0;
  CallHook hook(wrapped::getifaddrs, [&](ifaddrs** result) {
    sockets = static_cast<int>(network_.sockets.size());
    *result = nullptr;
    return 0;
  });
  EXPECT_TRUE(list_.refresh());
  EXPECT_EQ(sockets, 1);
}

// The kernel had no room for its messages: something has changed.
TEST_F(HostAddressesTest, LostWordOfChangesIsAChange) {
  list_.refresh();
  Fault fault("recv", ENOBUFS, 0, 1);
  list_.refresh();
  EXPECT_EQ(call_count("getifaddrs"), 2);
}

TEST_F(HostAddressesTest, FloodOfChangesHoldsNobodyUp) {
  list_.refresh();
  int reads = 0;
  CallHook hook(wrapped::recv, [&](int, void*, size_t, int flags) {
    EXPECT_EQ(flags, MSG_DONTWAIT);
    ++reads;
    return ssize_t{1};
  });
  list_.refresh();
  EXPECT_EQ(call_count("getifaddrs"), 2);
  EXPECT_LE(reads, 1000);
}

TEST_F(HostAddressesTest, WithoutWordOfChangesItIsReadEveryTime) {
  for (const char* call : {"socket", "bind"}) {
    const int before = call_count("getifaddrs");
    HostAddresses list;
    Fault fault(call, EMFILE);
    list.refresh();
    list.refresh();
    EXPECT_EQ(call_count("getifaddrs"), before + 2) << call;
  }
  list_.refresh();
  const int before = call_count("getifaddrs");
  list_.refresh();
  EXPECT_EQ(call_count("getifaddrs"), before) << "it is listened for as soon as that works";
}

TEST_F(HostAddressesTest, ListThatCannotBeReadIsEmptyAndTriedAgain) {
  network_.addresses = {{"eth0", "2001:db8::1"}};
  list_.refresh();
  tell();
  {
    Fault fault("getifaddrs", ENOMEM);
    errno = 0;
    EXPECT_FALSE(list_.refresh());
    EXPECT_EQ(errno, ENOMEM);
    EXPECT_EQ(first("eth0"), "none");
    EXPECT_FALSE(list_.refresh());
  }
  EXPECT_TRUE(list_.refresh());
  EXPECT_EQ(first("eth0"), "2001:db8::1");
}

TEST_F(HostAddressesTest, FirstInTheHostsOrderOfAllNamesThatBeginSo) {
  network_.addresses = {{"eth1", "2001:db8::1"},
                        {"eth10", "2001:db8::10"},
                        {"eth1", "192.0.2.1"},
                        {"eth1", "2001:db8::2"},
                        {"eth00", "2001:db8::3"},
                        {"eth0", "2001:db8::4"},
                        {"lo", ""},
                        {"eth2:1", "192.0.2.2"}};
  ASSERT_TRUE(list_.refresh());
  EXPECT_EQ(first("eth1"), "2001:db8::1");
  EXPECT_EQ(first("eth10"), "2001:db8::10");
  EXPECT_EQ(first("eth0"), "2001:db8::3");
  EXPECT_EQ(first("eth"), "2001:db8::1");
  EXPECT_EQ(first(""), "2001:db8::1");
  EXPECT_EQ(first("eth1", AF_INET), "192.0.2.1");
  EXPECT_EQ(first("eth2", AF_INET), "192.0.2.2");
  EXPECT_EQ(first("eth11"), "none");
  EXPECT_EQ(first("f"), "none");
}
