// The request to the connection tracker, byte for byte, and the socket that it goes through.
#include "routing/conntrack_record.h"

#include <linux/netfilter/nfnetlink_conntrack.h>
#include <linux/netlink.h>
#include <unistd.h>

#include "support/conntrack_fixture.h"

using testing::ElementsAre;
using testing::IsEmpty;
using testing::Pair;
using testing::SizeIs;

namespace {

using Bytes = FakeNetwork::Bytes;
using ConntrackRecordTest = ConntrackFixture;

// The attributes of a request by their path of types: "1.2.4" is the fourth of the second of the
// first.
void flatten(const Bytes& bytes, const std::string& path, std::map<std::string, Bytes>& found) {
  size_t offset = 0;
  while (offset + sizeof(nlattr) <= bytes.size()) {
    nlattr attribute;
    std::memcpy(&attribute, bytes.data() + offset, sizeof(attribute));
    ASSERT_GE(attribute.nla_len, sizeof(attribute));
    ASSERT_LE(offset + attribute.nla_len, bytes.size());
    const auto begin = bytes.begin() + static_cast<long>(offset);
    const Bytes value(begin + sizeof(attribute), begin + attribute.nla_len);
    const std::string name = path + std::to_string(attribute.nla_type & NLA_TYPE_MASK);
    if ((attribute.nla_type & NLA_F_NESTED) != 0) {
      flatten(value, name + ".", found);
    } else {
      found[name] = value;
    }
    offset += NLA_ALIGN(attribute.nla_len);
  }
}

std::map<std::string, Bytes> attributes_of(const Bytes& request) {
  std::map<std::string, Bytes> found;
  flatten({request.begin() + NLMSG_HDRLEN + 4, request.end()}, "", found);
  return found;
}

Bytes identifier() {
  const auto pid = static_cast<uint16_t>(getpid());
  return {static_cast<uint8_t>(pid >> 8), static_cast<uint8_t>(pid)};
}

Bytes address6(const char* text) {
  Bytes bytes(16);
  inet_pton(AF_INET6, text, bytes.data());
  return bytes;
}

}  // namespace

TEST_F(ConntrackRecordTest, Header) {
  virtual_clock::set_wall({1234567890, 999999999});
  EXPECT_EQ(create(), 0);
  ASSERT_THAT(network_.conntrack_requests, SizeIs(1));
  const Bytes& request = network_.conntrack_requests[0];
  const nlmsghdr header = header_of(request);
  EXPECT_EQ(header.nlmsg_len, request.size());
  EXPECT_EQ(header.nlmsg_type, 0x0100);  // a new record of the tracker
  EXPECT_EQ(header.nlmsg_flags, NLM_F_REQUEST | NLM_F_ACK | NLM_F_EXCL | NLM_F_CREATE);
  EXPECT_EQ(header.nlmsg_flags, 0x0605);
  EXPECT_EQ(header.nlmsg_seq, 1234567890u);
  const Bytes extra(request.begin() + NLMSG_HDRLEN, request.begin() + NLMSG_HDRLEN + 4);
  EXPECT_THAT(extra, ElementsAre(2, 0, 0, 0));  // IPv4, version 0, resource 0
  EXPECT_THAT(log_records(), IsEmpty());
}

TEST_F(ConntrackRecordTest, Ipv4Exchange) {
  EXPECT_EQ(create(), 0);
  const Bytes near{192, 0, 2, 1};
  const Bytes far{198, 51, 100, 7};
  EXPECT_THAT(attributes_of(network_.conntrack_requests.at(0)),
              ElementsAre(Pair("1.1.1", near),          // request: source
                          Pair("1.1.2", far),           //   destination
                          Pair("1.2.1", Bytes{1}),      //   ICMP
                          Pair("1.2.4", identifier()),  //   as on the wire
                          Pair("1.2.5", Bytes{8}),      //   echo request
                          Pair("1.2.6", Bytes{0}),      //   code
                          Pair("2.1.1", far),           // reply
                          Pair("2.1.2", near), Pair("2.2.1", Bytes{1}), Pair("2.2.4", identifier()),
                          Pair("2.2.5", Bytes{0}), Pair("2.2.6", Bytes{0}),
                          Pair("7", Bytes{0, 0, 0, 32})));  // seconds
}

TEST_F(ConntrackRecordTest, Ipv6Exchange) {
  EXPECT_EQ(create6(), 0);
  const Bytes& request = network_.conntrack_requests.at(0);
  EXPECT_EQ(request[NLMSG_HDRLEN], 10);
  const Bytes near = address6("2001:db8::1");
  const Bytes far = address6("2001:db8:7::7");
  EXPECT_THAT(attributes_of(request),
              ElementsAre(Pair("1.1.3", near),          // request: source
                          Pair("1.1.4", far),           //   destination
                          Pair("1.2.1", Bytes{58}),     //   ICMPv6
                          Pair("1.2.7", identifier()),  //   as on the wire
                          Pair("1.2.8", Bytes{128}),    //   echo request
                          Pair("1.2.9", Bytes{0}),      //   code
                          Pair("2.1.3", far),           // reply
                          Pair("2.1.4", near), Pair("2.2.1", Bytes{58}),
                          Pair("2.2.7", identifier()), Pair("2.2.8", Bytes{129}),
                          Pair("2.2.9", Bytes{0}), Pair("7", Bytes{0, 0, 0, 32})));  // seconds
}

TEST_F(ConntrackRecordTest, AddressIsNotCheckedForIpv4) {
  EXPECT_EQ(create_conntrack_record("nonsense", "198.51.100.7", context_), 0);
  EXPECT_EQ(attributes_of(network_.conntrack_requests.at(0)).at("1.1.1"),
            (Bytes{255, 255, 255, 255}));
  EXPECT_THAT(log_records(), IsEmpty());
}

// The socket.

TEST_F(ConntrackRecordTest, SocketIsOpenedOnceAndKept) {
  int bus = -1;
  int flags = 0;
  CallHook open(wrapped::mnl_socket_open2, [&](int of_bus, int with_flags) {
    bus = of_bus;
    flags = with_flags;
    static char socket[64];
    return reinterpret_cast<mnl_socket*>(socket);
  });
  unsigned groups = 1;
  pid_t port = -1;
  CallHook bind(wrapped::mnl_socket_bind, [&](mnl_socket*, unsigned to_groups, pid_t pid) {
    groups = to_groups;
    port = pid;
    return 0;
  });
  EXPECT_EQ(create(), 0);
  EXPECT_EQ(create(), 0);
  EXPECT_EQ(create6(), 0);
  EXPECT_EQ(call_count("mnl_socket_open2"), 1);
  EXPECT_EQ(call_count("mnl_socket_bind"), 1);
  EXPECT_EQ(call_count("mnl_socket_close"), 0);
  EXPECT_EQ(bus, NETLINK_NETFILTER);
  EXPECT_EQ(flags, SOCK_CLOEXEC);
  EXPECT_EQ(groups, 0u);
  EXPECT_EQ(port, MNL_SOCKET_AUTOPID);
}

TEST_F(ConntrackRecordTest, EachVrfHasItsOwn) {
  EXPECT_EQ(create(), 0);
  LBWorkerContext other;
  other.vrf = unused_name("vrf");
  EXPECT_EQ(create_conntrack_record("192.0.2.1", "198.51.100.7", other), 0);
  EXPECT_EQ(call_count("mnl_socket_open2"), 2);
  Fault fault("nfct_new", ENOMEM);
  EXPECT_EQ(create_conntrack_record("192.0.2.1", "198.51.100.7", other), -1);
}

TEST_F(ConntrackRecordTest, SocketThatCannotBeOpened) {
  {
    Fault fault("mnl_socket_open2", EPROTONOSUPPORT);
    EXPECT_EQ(create(), -1);
    EXPECT_EQ(create(), -1);
  }
  const auto message = LoggedError(
      "<create_conntrack_record> mnl_socket_open: Protocol not "
      "supported");
  EXPECT_THAT(log_records(), ElementsAre(message, message));
  EXPECT_THAT(network_.conntrack_requests, IsEmpty());
  EXPECT_EQ(call_count("mnl_socket_close"), 0);
  EXPECT_EQ(create(), 0);
}

TEST_F(ConntrackRecordTest, SocketThatCannotBeBound) {
  {
    Fault fault("mnl_socket_bind", EADDRINUSE);
    EXPECT_EQ(create(), -1);
  }
  EXPECT_THAT(log_records(), ElementsAre(LoggedError("<create_conntrack_record> mnl_socket_bind: "
                                                     "Address already in use")));
  EXPECT_EQ(call_count("mnl_socket_close"), 1);
  EXPECT_THAT(network_.conntrack_requests, IsEmpty());
  EXPECT_EQ(create(), 0);
  EXPECT_EQ(call_count("mnl_socket_open2"), 2);
}
