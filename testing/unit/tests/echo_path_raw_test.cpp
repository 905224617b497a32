// The raw path: what goes through the ICMP socket, and how names are resolved.
#include <unistd.h>

#include "packets/icmp_echo.h"
#include "support/echo_path_fixture.h"

using testing::ElementsAre;
using testing::ElementsAreArray;
using testing::IsEmpty;

namespace {

template <class IpVersion>
class EchoPathRawTest : public EchoPathFixture<IpVersion> {
 protected:
  EchoPathRawTest() { this->network_.no_arp = true; }
};

using EchoPathRaw4Test = EchoPathRawTest<Ipv4>;
using EchoPathRaw6Test = EchoPathRawTest<Ipv6>;

// The sum of the big-endian words of `bytes`, folded: 0xffff where a checksum is right.
uint32_t folded_sum(const FakeNetwork::Bytes& bytes, size_t size) {
  uint64_t sum = 0;
  for (size_t i = 0; i < size; i += 2) sum += bytes[i] * 256u + bytes[i + 1];
  return static_cast<uint32_t>(sum % 65535 == 0 ? 0xffff : sum % 65535);
}

}  // namespace

TYPED_TEST_SUITE(EchoPathRawTest, BothFamilies, FamilyName);

TEST_F(EchoPathRaw4Test, RequestAndDestination) {
  ASSERT_TRUE(send("10.0.0.1"));
  const auto identifier = static_cast<uint16_t>(getpid());
  const auto& request = sent().bytes;
  ASSERT_EQ(request.size(), 24u);
  FakeNetwork::Bytes expected(24);
  expected[0] = 8;  // echo request, code 0
  expected[2] = request[2];
  expected[3] = request[3];
  expected[4] = static_cast<uint8_t>(identifier >> 8);
  expected[5] = static_cast<uint8_t>(identifier);
  expected[7] = 1;  // sequence
  expected[10] = static_cast<uint8_t>(key_ >> 8);
  expected[11] = static_cast<uint8_t>(key_);
  EXPECT_THAT(request, ElementsAreArray(expected));
  EXPECT_EQ(folded_sum(request, 12), 0xffffu);

  FakeNetwork::Bytes address(16);
  sockaddr_in destination{};
  destination.sin_family = AF_INET;
  destination.sin_addr.s_addr = htonl(0x0a000001);
  std::memcpy(address.data(), &destination, sizeof(destination));
  EXPECT_THAT(sent().address, ElementsAreArray(address));
  EXPECT_EQ(sent().fd, sockets()->send_socket.get());
  EXPECT_EQ(sent().flags, MSG_DONTWAIT);
}

TEST_F(EchoPathRaw6Test, RequestAndDestination) {
  virtual_clock::set_wall({0x65432100, 999999000});
  ASSERT_TRUE(send("2001:db8::7"));
  const auto identifier = static_cast<uint16_t>(getpid());
  const auto& request = sent().bytes;
  ASSERT_EQ(request.size(), 40u);
  FakeNetwork::Bytes expected(40);
  expected[0] = 128;  // echo request, code 0
  expected[2] = request[2];
  expected[3] = request[3];
  expected[4] = static_cast<uint8_t>(identifier >> 8);
  expected[5] = static_cast<uint8_t>(identifier);
  expected[7] = 1;     // sequence
  expected[8] = 0x65;  // seconds
  expected[9] = 0x43;
  expected[10] = 0x21;
  expected[13] = 0x0f;  // microseconds: 999999
  expected[14] = 0x42;
  expected[15] = 0x3f;
  expected[18] = static_cast<uint8_t>(key_ >> 8);
  expected[19] = static_cast<uint8_t>(key_);
  EXPECT_THAT(request, ElementsAreArray(expected));
  EXPECT_EQ(folded_sum(request, 20), 0xffffu);

  FakeNetwork::Bytes address(28);
  sockaddr_in6 destination{};  // port, flow information and scope 0
  destination.sin6_family = AF_INET6;
  inet_pton(AF_INET6, "2001:db8::7", &destination.sin6_addr);
  std::memcpy(address.data(), &destination, sizeof(destination));
  EXPECT_THAT(sent().address, ElementsAreArray(address));
  EXPECT_EQ(sent().fd, sockets()->send_socket.get());
  EXPECT_EQ(sent().flags, MSG_DONTWAIT);
}

// The far end's reply has the request's payload, whose first word is the time.
TEST_F(EchoPathRaw6Test, ReplyIsAsARuleNotMatched) {
  ASSERT_TRUE(send());
  FakeNetwork::Bytes reply = sent().bytes;
  reply[0] = 129;
  const int32_t waiting = enter_probe();
  EXPECT_NE(echo6_reply_key(reply), static_cast<uint32_t>(waiting));
  EXPECT_EQ(echo6_reply_key(reply), 1'700'000'000u);
  probes().erase(waiting);
}

TYPED_TEST(EchoPathRawTest, BindsTheSocketToTheInterfaceForEveryProbe) {
  ASSERT_TRUE(this->send());
  ASSERT_TRUE(this->send());
  int binds = 0;
  for (const auto& option : this->network_.options) {
    if (option.name != SO_BINDTODEVICE) continue;
    ++binds;
    EXPECT_EQ(option.level, SOL_SOCKET);
    EXPECT_EQ(option.fd, this->sockets()->send_socket.get());
    EXPECT_STREQ(reinterpret_cast<const char*>(option.value.data()), this->ifname_.c_str());
  }
  EXPECT_EQ(binds, 2);
}

TYPED_TEST(EchoPathRawTest, NeedsNoNeighbourAndNoTrackingRecord) {
  ASSERT_TRUE(this->send());
  EXPECT_EQ(this->network_.ioctl_calls[SIOCGIFHWADDR], 0);
  EXPECT_EQ(this->network_.ioctl_calls[SIOCGARP], 0);
  EXPECT_THAT(this->network_.conntrack_requests, IsEmpty());
}

TYPED_TEST(EchoPathRawTest, ResolverIsNotAskedForAnAddress) {
  ASSERT_TRUE(this->send());
  EXPECT_THAT(this->network_.resolved, IsEmpty());
}

TYPED_TEST(EchoPathRawTest, LongAnswersOfTheResolverFit) {
  std::vector<size_t> sizes;
  CallHook hook(wrapped::gethostbyname2_r, [&](const char*, int family, hostent* entry,
                                               char* buffer, size_t size, hostent** result, int*) {
    sizes.push_back(size);
    *result = nullptr;
    if (size < 5000) return ERANGE;
    auto** list = reinterpret_cast<char**>(buffer);
    list[0] = buffer + 64;
    list[1] = nullptr;
    std::memset(list[0], 0x11, 16);
    *entry = {};
    entry->h_addrtype = family;
    entry->h_length = family == AF_INET6 ? 16 : 4;
    entry->h_addr_list = list;
    *result = entry;
    return 0;
  });
  // As an IPv4 target a name is refused once it is resolved.
  EXPECT_EQ(this->send("probe.example"), TypeParam::kFamily.ipv6);
  ASSERT_GE(sizes.size(), 2u);
  EXPECT_GE(sizes.back(), 5000u);
}

TYPED_TEST(EchoPathRawTest, EndlessAnswersOfTheResolverAreGivenUp) {
  int calls = 0;
  CallHook hook(wrapped::gethostbyname2_r,
                [&](const char*, int, hostent*, char*, size_t, hostent** result, int*) {
                  *result = nullptr;
                  ++calls;
                  return ERANGE;
                });
  EXPECT_FALSE(this->send("probe.example"));
  EXPECT_GT(calls, 0);
  EXPECT_LT(calls, 30);
  EXPECT_EQ(log_records().size(), 1u);
}

TEST_F(EchoPathRaw4Test, NameFailsEachTimeByTimeOut) {
  network_.known_hosts["probe.example"] = {"192.0.2.77"};
  const auto test = make_test("probe.example");
  sockets()->receiver_state = ReceiverState::kFailed;
  for (int cycle = 1; cycle <= 2; ++cycle) {
    test->send(interface_, worker_);
    virtual_clock::advance(std::chrono::milliseconds(5001));
    test->recv(interface_, worker_);
    EXPECT_EQ(test->report().result, 2);
    EXPECT_EQ(log_records().size(), static_cast<size_t>(cycle));
  }
  EXPECT_THAT(network_.sent, IsEmpty());
}

TEST_F(EchoPathRaw6Test, NameIsProbedAtItsFirstAddress) {
  network_.known_hosts["probe.example"] = {"2001:db8::77", "2001:db8::78"};
  ASSERT_TRUE(send("probe.example"));
  sockaddr_in6 destination{};
  ASSERT_EQ(sent().address.size(), sizeof(destination));
  std::memcpy(&destination, sent().address.data(), sizeof(destination));
  in6_addr first;
  inet_pton(AF_INET6, "2001:db8::77", &first);
  EXPECT_EQ(std::memcmp(&destination.sin6_addr, &first, sizeof(first)), 0);
  EXPECT_THAT(log_records(), IsEmpty());
}
