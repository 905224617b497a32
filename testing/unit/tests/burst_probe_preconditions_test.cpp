// What a burst needs before its first request, in which order it is asked for, and what is said
// where it is missing.
#include "support/burst_fixture.h"

using testing::Contains;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::Not;
using testing::Pair;

namespace {

class BurstProbeRawTest : public BurstFixture {};

class BurstProbeFrameTest : public BurstFixture {
 protected:
  BurstProbeFrameTest() {
    network_.no_arp = false;
    interface_.source_address = "192.0.2.1";
    answer_all(Milliseconds(1));
    // So that the next socket is not the one for the flag.
    MutexLock lock(interface_.mutex);
    interface_.state.no_arp = false;
  }
};

}  // namespace

TEST_F(BurstProbeRawTest, NeedsAnInterfaceName) {
  interface_.origin.clear();
  send();
  expect_failed();
  EXPECT_THAT(network_.sent, IsEmpty());
  EXPECT_THAT(network_.resolved, IsEmpty());
  EXPECT_THAT(log_records(), IsEmpty());
}

TEST_F(BurstProbeRawTest, ResolvingFailureIsAWarning) {
  test_.set_target("nowhere.example");
  set_log_flag(2, false);
  send();
  EXPECT_THAT(log_records(), IsEmpty());
  set_log_flag(2, true);
  set_log_flag(1, false);
  virtual_clock::advance(std::chrono::seconds(240));
  send();
  EXPECT_THAT(log_records(), ElementsAre(LoggedWarning("Error in resolving configured hostname: "
                                                       "nowhere.example")));
  EXPECT_THAT(state().failure_counts, ElementsAre(Pair("nowhere.example", 1)));
}

TEST_F(BurstProbeRawTest, NameIsResolvedBeforeTheSocketIsBound) {
  test_.set_target("nowhere.example");
  send();
  const int socket = sockets()->send_socket.get();
  EXPECT_THAT(network_.option_names(socket), Not(Contains(SO_BINDTODEVICE)));
  network_.known_hosts["probe.example"] = {"192.0.2.77"};
  test_.set_target("probe.example");
  virtual_clock::advance(std::chrono::seconds(240));
  send();
  EXPECT_THAT(network_.option_names(socket), Contains(SO_BINDTODEVICE));
}

TEST_F(BurstProbeRawTest, MessagesNeedTheirFlags) {
  set_log_flag(1, false);
  Fault fault("setsockopt", ENODEV);
  send();
  expect_failed();
  EXPECT_THAT(log_records(), IsEmpty());  // nor the debug line, whose flag is off by itself
}

TEST_F(BurstProbeFrameTest, SocketForTheHardwareAddress) {
  Fault fault("socket", EMFILE, 0, 1);
  send();
  expect_failed();
  EXPECT_THAT(log_records(),
              ElementsAre(LoggedError("socket() failed to get socket descriptor for using ioctl() "
                                      "Too many open files")));
  EXPECT_THAT(network_.sent, IsEmpty());
}

TEST_F(BurstProbeFrameTest, InterfaceWithoutAnAddress) {
  interface_.source_address.clear();
  network_.ioctl_errors[SIOCGIFADDR] = EADDRNOTAVAIL;
  send();
  expect_failed();
  EXPECT_THAT(log_records(), IsEmpty());
  EXPECT_THAT(network_.sent, IsEmpty());
}

TEST_F(BurstProbeFrameTest, TableThatCannotBeAsked) {
  network_.ioctl_errors[SIOCGARP] = EPERM;
  send();
  expect_failed();
  EXPECT_THAT(log_records(), ElementsAre(LoggedError("<check_arp_exist> Ioctl Operation not "
                                                     "permitted(1)")));
  EXPECT_EQ(network_.ioctl_calls[SIOCGARP], 1);  // and it is not waited for
  EXPECT_THAT(network_.conntrack_requests, IsEmpty());
  EXPECT_THAT(network_.sent, IsEmpty());
}

TEST_F(BurstProbeFrameTest, ResolvesTheGatewayForAFarTarget) {
  send();
  expect_succeeded();
  EXPECT_THAT(prober_->targets().snapshot(), ElementsAre(Pair(EchoKit<Ipv4>::kGateway, ifname_)));
}

TEST_F(BurstProbeFrameTest, GatewayLearntFromALeaseIsResolved) {
  interface_.nexthop = "dhcp";
  {
    MutexLock lock(interface_.mutex);
    interface_.state.nexthop_address = EchoKit<Ipv4>::kOtherGateway;
  }
  send();
  expect_succeeded();
  EXPECT_THAT(prober_->targets().snapshot(),
              ElementsAre(Pair(EchoKit<Ipv4>::kOtherGateway, ifname_)));
}
