// The link-level path: what goes through the packet socket, and what the kernel is asked before.
#include <net/if_arp.h>
#include <unistd.h>

#include "support/echo_path_fixture.h"

using testing::ElementsAre;
using testing::ElementsAreArray;
using testing::IsEmpty;
using namespace std::chrono_literals;

namespace {

template <class IpVersion>
class EchoPathFrameTest : public EchoPathFixture<IpVersion> {
 protected:
  EchoPathFrameTest() {
    this->interface_.source_address = IpVersion::kFamily.ipv6 ? "2001:db8::1" : "192.0.2.1";
    set_log_flag(3, true);
  }

  // Puts identifier, key and checksum into the echo message at `offset`; `sum` is that of the words
  // which are not 0 otherwise.
  void fill_in(FakeNetwork::Bytes& frame, size_t offset, uint32_t sum) const {
    const auto identifier = static_cast<uint16_t>(getpid());
    const auto put = [&](size_t place, uint32_t word) {
      frame[offset + place] = static_cast<uint8_t>(word >> 8);
      frame[offset + place + 1] = static_cast<uint8_t>(word);
    };
    put(4, identifier);
    put(10, this->key_);
    const uint32_t folded = (sum + identifier + this->key_ - 1) % 0xffff + 1;
    put(2, 0xffff - folded);
  }
};

using EchoPathFrame4Test = EchoPathFrameTest<Ipv4>;
using EchoPathFrame6Test = EchoPathFrameTest<Ipv6>;

// The source and destination of a request to the connection tracker.
struct Tracked {
  std::string source;
  std::string destination;
};

Tracked parse_request(const FakeNetwork::Bytes& request) {
  Tracked tracked;
  nf_conntrack* const record = wrapped::nfct_new.real();
  alignas(nlmsghdr) char message[4096]{};
  std::copy(request.begin(), request.end(), message);
  EXPECT_GE(nfct_nlmsg_parse(reinterpret_cast<const nlmsghdr*>(message), record), 0);
  const bool ipv6 = nfct_get_attr_u8(record, ATTR_L3PROTO) == AF_INET6;
  const auto text = [&](nf_conntrack_attr attribute) {
    char buffer[INET6_ADDRSTRLEN] = "";
    const void* address = nfct_get_attr(record, attribute);
    inet_ntop(ipv6 ? AF_INET6 : AF_INET, address, buffer, sizeof(buffer));
    return std::string(buffer);
  };
  tracked.source = text(ipv6 ? ATTR_IPV6_SRC : ATTR_IPV4_SRC);
  tracked.destination = text(ipv6 ? ATTR_IPV6_DST : ATTR_IPV4_DST);
  nfct_destroy(record);
  return tracked;
}

}  // namespace

TYPED_TEST_SUITE(EchoPathFrameTest, BothFamilies, FamilyName);

TEST_F(EchoPathFrame4Test, Frame) {
  ASSERT_TRUE(send());
  FakeNetwork::Bytes expected{
      0x02, 0x11, 0x22, 0x33, 0x44, 0x55,  // the next hop's hardware address
      0x02, 0xaa, 0xbb, 0xcc, 0xdd, 0xee,  // the interface's
      0x08, 0x00,                          // IPv4
      0x45, 0x00, 0x00, 0x20,              // 5 words, type of service 0, 32 bytes
      0x00, 0x00, 0x00, 0x00,              // identification, flags, offset
      0xff, 0x01, 0xcf, 0xa0,              // time to live 255, ICMP, checksum
      0xc0, 0x00, 0x02, 0x01,              // source
      0xc6, 0x33, 0x64, 0x07,              // target
      0x08, 0x00, 0x00, 0x00,              // echo request, code 0, checksum
      0x00, 0x00, 0x00, 0x00,              // identifier, sequence 0
      0x00, 0x00, 0x00, 0x00,              // probe key
  };
  fill_in(expected, 34, 0x0800);
  EXPECT_THAT(sent().bytes, ElementsAreArray(expected));
  EXPECT_THAT(log_records(), IsEmpty());
}

TEST_F(EchoPathFrame6Test, Frame) {
  ASSERT_TRUE(send());
  FakeNetwork::Bytes expected{
      0x02, 0x11, 0x22, 0x33, 0x44, 0x55,  // next hop's hardware address
      0x02, 0xaa, 0xbb, 0xcc, 0xdd, 0xee,  // the interface's
      0x86, 0xdd,                          // IPv6
      0x60, 0x00, 0x00, 0x00,              // version, class, flow label
      0x00, 0x0c, 0x3a, 0xff,              // 12 bytes, ICMPv6, limit 255
      0x20, 0x01, 0x0d, 0xb8, 0,    0,    0, 0, 0, 0, 0, 0, 0, 0, 0, 1,  // source
      0x20, 0x01, 0x0d, 0xb8, 0,    7,    0, 0, 0, 0, 0, 0, 0, 0, 0, 7,  // target
      0x80, 0x00, 0x00, 0x00,  // echo request, code 0, checksum
      0x00, 0x00, 0x00, 0x00,  // identifier, sequence 0
      0x00, 0x00, 0x00, 0x00,  // probe key
  };
  // Addresses, length and next header of the pseudo-header come before the message's words.
  fill_in(expected, 54, 0x2001 + 0x0db8 + 1 + 0x2001 + 0x0db8 + 7 + 7 + 12 + 58 + 0x8000);
  EXPECT_THAT(sent().bytes, ElementsAreArray(expected));
  EXPECT_THAT(log_records(), IsEmpty());
}

TYPED_TEST(EchoPathFrameTest, GoesToTheNextHopByTheInterface) {
  ASSERT_TRUE(this->send());
  EXPECT_EQ(this->sent().fd, this->sockets()->packet_socket.get());
  EXPECT_EQ(this->sent().flags, MSG_DONTWAIT);
  FakeNetwork::Bytes expected(20);
  const uint16_t family = AF_PACKET;
  const int32_t index = 7;
  std::memcpy(&expected[0], &family, sizeof(family));
  std::memcpy(&expected[4], &index, sizeof(index));
  expected[11] = 6;  // length of the address
  std::copy_n(this->network_.gateway_mac.begin(), 6, expected.begin() + 12);
  EXPECT_THAT(this->sent().address, ElementsAreArray(expected));
}

TYPED_TEST(EchoPathFrameTest, EveryFrameIsForItsOwnKey) {
  ASSERT_TRUE(this->send());
  const uint32_t first = this->key_;
  ASSERT_TRUE(this->send());
  EXPECT_NE(this->key_, first);
  constexpr size_t kKey = EchoKit<TypeParam>::kFrameKeyOffset;
  EXPECT_EQ(word_at(this->network_.sent[0].bytes, kKey), first);
  EXPECT_EQ(word_at(this->network_.sent[1].bytes, kKey), this->key_);
}

TYPED_TEST(EchoPathFrameTest, GatewayIsResolvedNotTheTarget) {
  ASSERT_TRUE(this->send(EchoKit<TypeParam>::kOtherGateway));
  const auto watched = this->prober_->targets().snapshot();
  ASSERT_EQ(watched.size(), 1u);
  EXPECT_EQ(watched.begin()->first.address, EchoKit<TypeParam>::kGateway);
  EXPECT_EQ(watched.begin()->first.ifname, this->ifname_);
  EXPECT_TRUE(watched.begin()->second);
}

// The tracker.

TYPED_TEST(EchoPathFrameTest, TrackerLearnsOfTheProbeBeforeItGoesOut) {
  size_t records_at_frame = 0;
  this->network_.on_frame = [&](const FakeNetwork::Bytes&) {
    records_at_frame = this->network_.conntrack_requests.size();
  };
  ASSERT_TRUE(this->send());
  EXPECT_EQ(records_at_frame, 1u);
  ASSERT_EQ(this->network_.conntrack_requests.size(), 1u);
  const Tracked tracked = parse_request(this->network_.conntrack_requests[0]);
  EXPECT_EQ(tracked.source, this->interface_.source_address);
  EXPECT_EQ(tracked.destination, EchoKit<TypeParam>::kTarget);
}

TYPED_TEST(EchoPathFrameTest, ProbeGoesOutWithoutARecord) {
  this->network_.conntrack_answer = EEXIST;
  EXPECT_TRUE(this->send());
  EXPECT_THAT(log_records(),
              ElementsAre(LoggedError(std::string("<create_conntrack_record> mnl_socket_recvfrom "
                                                  "for ip version ") +
                                      (TypeParam::kFamily.ipv6 ? "6" : "4") + ": File exists")));
}

// The interface's hardware address and index.

// The interface's own, and the one that is asked through.
TYPED_TEST(EchoPathFrameTest, HardwareAddressIsAskedThroughAPacketSocketThatIsKept) {
  ASSERT_TRUE(this->send());
  EXPECT_EQ(this->network_.count(AF_PACKET, 0), 2);
  ASSERT_TRUE(this->send(EchoKit<TypeParam>::kOtherGateway));
  EXPECT_EQ(this->network_.count(AF_PACKET, 0), 2);
}

// What changes between two probes is right for the second one.
TYPED_TEST(EchoPathFrameTest, NothingOfTheInterfaceIsRemembered) {
  ASSERT_TRUE(this->send());
  this->network_.own_mac = {2, 2, 2, 2, 2, 2};
  this->network_.interface_index = 11;
  ASSERT_TRUE(this->send(EchoKit<TypeParam>::kOtherGateway));
  EXPECT_EQ(word_at(this->sent().bytes, 6), 0x02020202u);
  int32_t index = 0;
  std::memcpy(&index, &this->sent().address[4], sizeof(index));
  EXPECT_EQ(index, 11);
}

// The source address.

TEST_F(EchoPathFrame4Test, OwnAddressWhereNoneIsConfigured) {
  interface_.source_address.clear();
  network_.own_address = "192.0.2.99";
  network_.addresses.push_back({ifname_, "192.0.2.99"});
  ASSERT_TRUE(send());
  EXPECT_EQ(word_at(sent().bytes, 26), 0xc0000263u);
  EXPECT_EQ(parse_request(network_.conntrack_requests[0]).source, "192.0.2.99");
}

TEST_F(EchoPathFrame4Test, ConfiguredAddressIsNotAskedFor) {
  ASSERT_TRUE(send());
  EXPECT_EQ(network_.ioctl_calls[SIOCGIFADDR], 0);
}

TEST_F(EchoPathFrame6Test, AddressIsNotLookedForOnTheInterfaces) {
  interface_.source_address = "2001:db8:99::1";
  EXPECT_TRUE(send());
  EXPECT_EQ(call_count("getifaddrs"), 0);
}

TEST_F(EchoPathFrame6Test, LinkLocalAddressWhereNoneIsConfigured) {
  for (const char* configured : {"", "::"}) {
    interface_.source_address = configured;
    ASSERT_TRUE(send());
    in6_addr source;
    inet_pton(AF_INET6, "fe80::2", &source);
    EXPECT_EQ(std::memcmp(sent().bytes.data() + 22, &source, sizeof(source)), 0);
    EXPECT_EQ(parse_request(network_.conntrack_requests.back()).source, "fe80::2");
  }
}

TEST_F(EchoPathFrame6Test, UnspecifiedAddressWhereNoneIsFound) {
  interface_.source_address.clear();
  network_.addresses = {{"other", "fe80::3"}};
  ASSERT_TRUE(send());
  const FakeNetwork::Bytes zeros(16);
  EXPECT_EQ(std::memcmp(sent().bytes.data() + 22, zeros.data(), 16), 0);
  EXPECT_THAT(log_records(), IsEmpty());
}

// The next hop's hardware address.

TEST_F(EchoPathFrame4Test, NextHopMayComeWithTheLastPoll) {
  int calls = 0;
  CallHook hook(wrapped::ioctl, [&](int, unsigned long request, void* argument) {
    if (request == SIOCGIFINDEX) {
      static_cast<ifreq*>(argument)->ifr_ifindex = 7;
      return 0;
    }
    if (request == SIOCGIFHWADDR || request == SIOCGIFFLAGS) {
      std::memset(&static_cast<ifreq*>(argument)->ifr_hwaddr, 0, sizeof(sockaddr));
      return 0;
    }
    ++calls;
    auto* entry = static_cast<arpreq*>(argument);
    entry->arp_flags = calls == 102 ? ATF_COM : 0;
    std::memset(entry->arp_ha.sa_data, 0x5a, 6);
    return 0;
  });
  ASSERT_TRUE(send());
  EXPECT_EQ(calls, 102);
  EXPECT_EQ(virtual_clock::sleeps().size(), 100u);
  EXPECT_EQ(word_at(sent().bytes, 0), 0x5a5a5a5au);
}

// Texts that are no addresses.

TEST_F(EchoPathFrame6Test, SourceThatIsNoAddress) {
  interface_.source_address = "home";
  EXPECT_FALSE(send());
  EXPECT_THAT(log_records(), ElementsAre(LoggedError("inet_pton() failed.\nError message: Success"),
                                         LoggedDebug("wan_lb: error on sending icmp6 packet: 22")));
}

TYPED_TEST(EchoPathFrameTest, NothingIsResolvedByName) {
  ASSERT_TRUE(this->send());
  EXPECT_THAT(this->network_.resolved, IsEmpty());
}
