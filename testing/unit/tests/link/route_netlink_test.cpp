#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "packets/packet_reader.h"
#include "packets/route_message.h"
#include "support/captured_stderr.h"
#include "support/fake_network.h"
#include "support/recorded_log.h"
#include "support/route_answers.h"
#include "tests/link/route_netlink.h"

using testing::ElementsAre;
using testing::IsEmpty;

namespace {

const std::string kTarget = "2001:db8::1";
const MacAddress kMac{0x06, 0xaa, 0xbb, 0xcc, 0xdd, 0xee};

class RouteNetlinkTest : public testing::Test {
 protected:
  // The one socket that was opened is a route-netlink socket, and it is closed again.
  void expect_socket_closed() {
    ASSERT_EQ(network_.sockets.size(), 1u);
    const FakeNetwork::Socket& socket = network_.sockets[0];
    EXPECT_EQ(socket.domain, AF_NETLINK);
    EXPECT_EQ(socket.type, SOCK_RAW);
    EXPECT_EQ(socket.protocol, NETLINK_ROUTE);
    EXPECT_EQ(fcntl(socket.fd, F_GETFD), -1);
  }

  FakeNetwork network_;
};

}  // namespace

TEST_F(RouteNetlinkTest, LookUpSendsADumpRequest) {
  network_.netlink_answers = {done()};
  MacAddress mac{};
  EXPECT_EQ(get_neighbor_mac(kTarget, 7, &mac), 0);
  ASSERT_EQ(network_.netlink_requests.size(), 1u);
  EXPECT_THAT(network_.netlink_buffers, ElementsAre(2u));
  Bytes expected = netlink_message(30, 28);  // RTM_GETNEIGH
  set(expected, 6, uint16_t{0x0301});        // request, root, match
  expected[16] = 10;                         // family AF_INET6
  EXPECT_EQ(network_.netlink_requests[0], expected);
  // Bound and sent to: the kernel, no groups.
  ASSERT_EQ(network_.netlink_addresses.size(), 2u);
  for (const sockaddr_nl& address : network_.netlink_addresses) {
    EXPECT_EQ(address.nl_family, 16);
    EXPECT_EQ(address.nl_pid, 0u);
    EXPECT_EQ(address.nl_groups, 0u);
  }
  expect_socket_closed();
  EXPECT_THAT(log_records(), IsEmpty());
}

TEST_F(RouteNetlinkTest, LookUpFindsTheEntryInALaterRead) {
  Bytes broken = entry(kTarget, MacAddress{9, 9, 9, 9, 9, 9});
  set(broken, 0, uint32_t{1000});
  network_.netlink_answers = {entry("2001:db8::2", network_.own_mac), broken, entry(kTarget, kMac),
                              done()};
  MacAddress mac{};
  EXPECT_EQ(get_neighbor_mac(kTarget, 7, &mac), 1);
  EXPECT_EQ(mac, kMac);
  expect_socket_closed();
}

TEST_F(RouteNetlinkTest, LookUpIsForOneInterface) {
  Bytes answer = entry(kTarget, MacAddress{2, 0, 0, 0, 0, 8});
  set(answer, 20, int32_t{8});
  append(answer, entry(kTarget, kMac));  // on 7
  network_.netlink_answers = {answer, done()};
  MacAddress mac{};
  EXPECT_EQ(get_neighbor_mac(kTarget, 7, &mac), 1);
  EXPECT_EQ(mac, kMac);
  EXPECT_EQ(get_neighbor_mac(kTarget, 8, &mac), 1);
  EXPECT_EQ(mac, (MacAddress{2, 0, 0, 0, 0, 8}));
  EXPECT_EQ(get_neighbor_mac(kTarget, 9, &mac), 0);
  EXPECT_EQ(mac, (MacAddress{2, 0, 0, 0, 0, 8})) << "left as it was";
}

TEST_F(RouteNetlinkTest, EntryWithoutAPlaceForItsAddressIsAFailure) {
  network_.netlink_answers = {entry(kTarget, kMac), done()};
  EXPECT_EQ(get_neighbor_mac(kTarget, 7, nullptr), -1);
  expect_socket_closed();
  EXPECT_THAT(log_records(), IsEmpty());
}

TEST_F(RouteNetlinkTest, AnswerWithoutTheTargetIsZero) {
  network_.netlink_answers = {entry("2001:db8::2", kMac), entry(kTarget, std::nullopt), done()};
  MacAddress mac{1, 2, 3, 4, 5, 6};
  EXPECT_EQ(get_neighbor_mac(kTarget, 7, &mac), 0);
  EXPECT_EQ(mac, (MacAddress{1, 2, 3, 4, 5, 6}));
}

TEST_F(RouteNetlinkTest, RefusalIsLogged) {
  network_.netlink_answers = {error_message(-EPERM)};
  MacAddress mac{};
  EXPECT_EQ(get_neighbor_mac(kTarget, 7, &mac), -1);
  EXPECT_THAT(log_records(),
              ElementsAre(LoggedError("RTNETLINK answers: Operation not permitted\n")));
  expect_socket_closed();
}

TEST_F(RouteNetlinkTest, NoSocket) {
  Fault fault("socket", EMFILE);
  MacAddress mac{};
  EXPECT_EQ(get_neighbor_mac(kTarget, 7, &mac), -1);
  EXPECT_THAT(log_records(), ElementsAre(LoggedError("Cannot open netlink socket")));
}

TEST_F(RouteNetlinkTest, NoBind) {
  Fault fault("bind", EACCES);
  MacAddress mac{};
  EXPECT_EQ(get_neighbor_mac(kTarget, 7, &mac), -1);
  EXPECT_THAT(log_records(), ElementsAre(LoggedError("Cannot bind netlink socket")));
  expect_socket_closed();
}

TEST_F(RouteNetlinkTest, NoSending) {
  Fault fault("sendmsg", ENOBUFS);
  MacAddress mac{};
  EXPECT_EQ(get_neighbor_mac(kTarget, 7, &mac), -1);
  EXPECT_THAT(log_records(), ElementsAre(LoggedError("Cannot talk to rtnetlink")));
  expect_socket_closed();
}

TEST_F(RouteNetlinkTest, InterruptedReceivingIsRetried) {
  for (const int error : {EINTR, EAGAIN}) {
    network_.netlink_answers = {done()};
    Fault fault("recv", error, 0, 2);
    MacAddress mac{};
    EXPECT_EQ(get_neighbor_mac(kTarget, 7, &mac), 0) << error;
  }
  EXPECT_THAT(log_records(), IsEmpty());
}

TEST_F(RouteNetlinkTest, FailedReceivingIsSilent) {
  Fault fault("recv", ENOBUFS);
  MacAddress mac{};
  EXPECT_EQ(get_neighbor_mac(kTarget, 7, &mac), -1);
  EXPECT_THAT(log_records(), IsEmpty());
  expect_socket_closed();
}

TEST_F(RouteNetlinkTest, EmptyReadEndsTheExchange) {
  // An errno of an earlier call must not make it a retry.
  CallHook hook(wrapped::recv, [](int, void*, size_t, int) -> ssize_t { return 0; });
  errno = EAGAIN;
  MacAddress mac{};
  EXPECT_EQ(get_neighbor_mac(kTarget, 7, &mac), -1);
  EXPECT_EQ(call_count("recv"), 1);
}

TEST_F(RouteNetlinkTest, ReceiveBufferIsOneMebibyte) {
  size_t room = 0;
  CallHook hook(wrapped::recv, [&](int, void*, size_t size, int) -> ssize_t {
    room = size;
    errno = ENOBUFS;
    return -1;
  });
  MacAddress mac{};
  get_neighbor_mac(kTarget, 7, &mac);
  EXPECT_EQ(room, 0x100000u);
}

TEST_F(RouteNetlinkTest, AddSendsOneMessage) {
  network_.netlink_answers = {error_message(0)};
  EXPECT_EQ(add_neighbor_entry(kTarget, kMac, "eth0"), 0);
  EXPECT_THAT(network_.netlink_buffers, ElementsAre(1u));
  Bytes expected = netlink_message(28, 60);                  // RTM_NEWNEIGH
  set(expected, 6, uint16_t{0x0405});                        // request, acknowledge, create
  expected[16] = 10;                                         // family AF_INET6
  set(expected, 20, int32_t{7});                             // interface index
  set(expected, 24, uint16_t{2});                            // state: reachable
  set(expected, 28, uint16_t{20});                           // attribute length
  set(expected, 30, uint16_t{1});                            // NDA_DST
  const Bytes address = address_bytes(kTarget);              //
  std::copy(address.begin(), address.end(), &expected[32]);  //
  set(expected, 48, uint16_t{10});                           // attribute length
  set(expected, 50, uint16_t{2});                            // NDA_LLADDR
  std::copy(kMac.begin(), kMac.end(), &expected[52]);        // and two bytes of padding
  ASSERT_EQ(network_.netlink_requests.size(), 1u);
  EXPECT_EQ(network_.netlink_requests[0], expected);
  EXPECT_THAT(log_records(), IsEmpty());
  expect_socket_closed();
}

TEST_F(RouteNetlinkTest, AddIsRefused) {
  network_.netlink_answers = {error_message(-EEXIST)};
  EXPECT_EQ(add_neighbor_entry(kTarget, kMac, "eth0"), -1);
  EXPECT_THAT(log_records(), ElementsAre(LoggedError("RTNETLINK answers: File exists\n")));
}

TEST_F(RouteNetlinkTest, AddOfNoAddress) {
  EXPECT_EQ(add_neighbor_entry("192.0.2.1", kMac, "eth0"), -1);
  EXPECT_THAT(log_records(), ElementsAre(LoggedError("inet_pton")));
  EXPECT_TRUE(network_.sockets.empty());
}

TEST_F(RouteNetlinkTest, AddOnNoInterface) {
  Fault fault("if_nametoindex", ENODEV);
  EXPECT_EQ(add_neighbor_entry(kTarget, kMac, "none"), -1);
  EXPECT_THAT(
      log_records(),
      ElementsAre(LoggedError("if_nametoindex() failed to obtain interface index No such device")));
  EXPECT_TRUE(network_.sockets.empty());
}

TEST_F(RouteNetlinkTest, AttributeBeyondTheBoundIsPrintedAndLogged) {
  EXPECT_EQ(kNeighborRequestBound, 0x10001Cu);
  Bytes message(28);
  EXPECT_TRUE(add_route_attribute(message, NDA_DST, address_bytes(kTarget), 48));
  CapturedStderr output;
  EXPECT_FALSE(add_route_attribute(message, NDA_LLADDR, kMac, 59));
  EXPECT_EQ(output.text(), "addattr_l ERROR: message exceeded bound of 59\n");
  EXPECT_THAT(log_records(), ElementsAre(LoggedError("rtnl_attr_add")));
}
