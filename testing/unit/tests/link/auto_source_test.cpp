// The source that the kernel chooses, and what is chosen where it does not.
#include "tests/link/auto_source.h"

#include <gmock/gmock.h>

#include "support/dump_answers.h"
#include "support/recorded_log.h"
#include "tests/link/source_address.h"

using testing::ElementsAre;
using testing::IsEmpty;

namespace {

class AutoSourceTest : public testing::Test {
 protected:
  AutoSourceTest() { answer({host_address("fe80::7"), host_address("2001:db8::7")}); }

  // What the kernel answers to the connected socket: an address, or an errno value.
  std::string ask(const Family& family, const std::string& target) {
    CallHook index(wrapped::if_nametoindex,
                   [](const char* name) { return std::string(name) == "eth0" ? 7U : 0U; });
    CallHook connecting(wrapped::connect, [this](int, const sockaddr* address, socklen_t size) {
      connected_ = Bytes(reinterpret_cast<const uint8_t*>(address),
                         reinterpret_cast<const uint8_t*>(address) + size);
      errno = error_;
      return error_ == 0 ? 0 : -1;
    });
    CallHook name(wrapped::getsockname, [&](int, sockaddr* address, socklen_t* size) {
      EXPECT_EQ(*size, family.ipv6 ? sizeof(sockaddr_in6) : sizeof(sockaddr_in));
      const bool ok = family.ipv6
                          ? inet_pton(AF_INET6, chosen_.c_str(),
                                      &reinterpret_cast<sockaddr_in6*>(address)->sin6_addr) == 1
                          : inet_pton(AF_INET, chosen_.c_str(),
                                      &reinterpret_cast<sockaddr_in*>(address)->sin_addr) == 1;
      EXPECT_TRUE(ok);
      return 0;
    });
    return auto_source(family, ifname_, target);
  }

  void answer(const std::vector<Bytes>& entries) {
    kernel_.reads.assign(entries.begin(), entries.end());
    kernel_.reads.push_back(dump_end());
  }

  DumpAnswers kernel_;
  std::string ifname_ = "eth0";
  std::string chosen_ = "2001:db8:1::1";
  int error_ = 0;
  Bytes connected_;
};

}  // namespace

TEST_F(AutoSourceTest, WhatTheKernelChose) {
  EXPECT_EQ(ask(kIpv6, "2001:db8:7::7"), "2001:db8:1::1");
  sockaddr_in6 target{};
  ASSERT_EQ(connected_.size(), sizeof(target));
  std::memcpy(&target, connected_.data(), sizeof(target));
  EXPECT_EQ(target.sin6_family, AF_INET6);
  EXPECT_NE(target.sin6_port, 0);
  EXPECT_EQ(address_to_text(AF_INET6, &target.sin6_addr), "2001:db8:7::7");
  EXPECT_EQ(target.sin6_scope_id, 7u);
  EXPECT_THAT(kernel_.requests, IsEmpty());
}

TEST_F(AutoSourceTest, WhatTheKernelChoseOfIpv4) {
  chosen_ = "192.0.2.10";
  EXPECT_EQ(ask(kIpv4, "198.51.100.7"), "192.0.2.10");
  sockaddr_in target{};
  ASSERT_EQ(connected_.size(), sizeof(target));
  std::memcpy(&target, connected_.data(), sizeof(target));
  EXPECT_EQ(target.sin_family, AF_INET);
  EXPECT_NE(target.sin_port, 0);
  EXPECT_EQ(address_to_text(AF_INET, &target.sin_addr), "198.51.100.7");
}

TEST_F(AutoSourceTest, SocketIsBoundToTheInterfaceAndClosed) {
  ask(kIpv6, "2001:db8:7::7");
  const auto socket = kernel_.last_socket(AF_INET6, SOCK_DGRAM, 0);
  EXPECT_TRUE(socket.close_on_exec);
  EXPECT_THAT(kernel_.option_names(socket.fd), ElementsAre(SO_BINDTODEVICE));
  EXPECT_THAT(kernel_.options.at(0).value, ElementsAre('e', 't', 'h', '0', '\0'));
  EXPECT_TRUE(FakeSockets::is_closed(socket));
  EXPECT_THAT(kernel_.sent, IsEmpty());
}

TEST_F(AutoSourceTest, WithoutARouteTheHostsAddressesDecide) {
  for (const int error : {ENETUNREACH, EHOSTUNREACH, EACCES, EINVAL}) {
    answer({host_address("fe80::7"), host_address("2001:db8::7")});
    error_ = error;
    EXPECT_EQ(ask(kIpv6, "2001:db8:7::7"), "2001:db8::7");
  }
  EXPECT_EQ(kernel_.requests.size(), 4u);
  EXPECT_THAT(log_records(), IsEmpty());
}

TEST_F(AutoSourceTest, OtherFailuresAreNoAddress) {
  for (const int error : {ENOBUFS, EPERM}) {
    error_ = error;
    EXPECT_EQ(ask(kIpv6, "2001:db8:7::7"), "");
  }
  error_ = ENETUNREACH;
  EXPECT_EQ(ask(kIpv4, "198.51.100.7"), "") << "IPv4 needs no route";
  EXPECT_THAT(kernel_.requests, IsEmpty());
  const Fault fault("socket", EMFILE);
  EXPECT_EQ(ask(kIpv6, "2001:db8:7::7"), "");
}

TEST_F(AutoSourceTest, UnspecifiedAddressIsNone) {
  chosen_ = "::";
  EXPECT_EQ(ask(kIpv6, "2001:db8:7::7"), "");
  chosen_ = "0.0.0.0";
  EXPECT_EQ(ask(kIpv4, "198.51.100.7"), "");
}

TEST_F(AutoSourceTest, NoAddressAtAll) {
  error_ = ENETUNREACH;
  answer({});
  EXPECT_EQ(ask(kIpv6, "2001:db8:7::7"), "");
  EXPECT_THAT(log_records(), IsEmpty());
}

TEST_F(AutoSourceTest, AddressesThatCannotBeRead) {
  error_ = ENETUNREACH;
  kernel_.reads = {error_message(-ENOMEM)};
  EXPECT_EQ(ask(kIpv6, "2001:db8:7::7"), "");
  EXPECT_THAT(log_records(),
              ElementsAre(LoggedWarning("Failed to read the host's addresses, errno = 12")));
}

TEST_F(AutoSourceTest, NoInterfaceAndNoTarget) {
  EXPECT_EQ(ask(kIpv6, "host.example"), "");
  EXPECT_EQ(ask(kIpv6, "192.0.2.1"), "");
  ifname_ = "eth9";
  EXPECT_EQ(ask(kIpv6, "2001:db8:7::7"), "");
  EXPECT_EQ(call_count("connect"), 0);
}

TEST_F(AutoSourceTest, SettledSourceIsTheChoice) {
  CallHook index(wrapped::if_nametoindex, [](const char*) { return 7U; });
  CallHook connecting(wrapped::connect, [](int, const sockaddr*, socklen_t) { return 0; });
  CallHook name(wrapped::getsockname, [](int, sockaddr* address, socklen_t*) {
    reinterpret_cast<sockaddr_in*>(address)->sin_addr.s_addr = htonl(0xc000020a);
    return 0;
  });
  LinkInfo link;
  std::string source = wanted_source(link.addresses(), kIpv4, "eth0", "auto");
  EXPECT_EQ(settle_source(link, kIpv4, "eth0", "198.51.100.7", source).step,
            SourceFailure::Step::kNone);
  EXPECT_EQ(source, "192.0.2.10");
  EXPECT_EQ(call_count("getifaddrs"), 0) << "the kernel need not be asked whether it is there";
}

TEST_F(AutoSourceTest, NoChoiceIsNoOwnAddress) {
  LinkInfo link;
  for (const Family* family : {&kIpv4, &kIpv6}) {
    std::string source = wanted_source(link.addresses(), *family, "eth0", "auto");
    const auto failure = settle_source(link, *family, "eth0", "host.example", source);
    EXPECT_EQ(failure.step, SourceFailure::Step::kNoOwnAddress);
    EXPECT_EQ(failure.error, EADDRNOTAVAIL);
  }
}
