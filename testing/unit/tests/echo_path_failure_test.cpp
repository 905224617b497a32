// Each step of both paths that can fail: what is said of it by a ping test of either family and by
// an extended one, and that nothing goes out.
#include "support/path_failure_fixture.h"
#include "support/recorded_device.h"

using testing::Contains;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::Not;

namespace {

template <class Kind>
class EchoPathFailureTest : public PathFailureFixture<Kind> {};

// Failures that only an IPv4 path has.
template <class Kind>
class EchoPathFailure4Test : public PathFailureFixture<Kind> {};

}  // namespace

using AllKinds = testing::Types<Echo4, Echo6, Burst>;
using Ipv4Kinds = testing::Types<Echo4, Burst>;
TYPED_TEST_SUITE(EchoPathFailureTest, AllKinds, ProbeKindName);
TYPED_TEST_SUITE(EchoPathFailure4Test, Ipv4Kinds, ProbeKindName);

TYPED_TEST(EchoPathFailureTest, WorkerOfTheOtherFamily) {
  this->worker_.ipv6 = !TypeParam::Version::kFamily.ipv6;
  this->fail();
  this->use_frames();
  this->fail();
  EXPECT_THAT(this->network_.resolved, IsEmpty());
  EXPECT_THAT(log_records(), ElementsAre(this->send_error(EINVAL), this->send_error(EINVAL)));
}

// The raw path.

TYPED_TEST(EchoPathFailureTest, NoInterfaceName) {
  this->interface_.origin.clear();
  this->fail();
  EXPECT_THAT(this->network_.resolved, IsEmpty());
  EXPECT_THAT(log_records(), ElementsAre(this->send_error(EINVAL)));
}

TYPED_TEST(EchoPathFailureTest, NameThatCannotBeResolved) {
  this->fail("nowhere.example");
  EXPECT_THAT(this->network_.resolved, ElementsAre("nowhere.example"));
  EXPECT_THAT(log_records(), ElementsAre(this->unresolved(), this->send_error(EHOSTUNREACH)));
  // The socket is bound only for a name that is resolved.
  EXPECT_THAT(this->network_.option_names(this->sockets()->send_socket.get()),
              Not(Contains(SO_BINDTODEVICE)));
}

TYPED_TEST(EchoPathFailureTest, ResolvingFailureHasAFlagOfItsOwn) {
  set_log_flag(TypeParam::kUnresolvedFlag, false);
  this->fail("nowhere.example");
  EXPECT_THAT(log_records(), ElementsAre(this->send_error(EHOSTUNREACH)));
  clear_log();
  set_log_flag(TypeParam::kUnresolvedFlag, true);
  set_log_flag(3 - TypeParam::kUnresolvedFlag, false);
  this->fail("nowhere.example");
  EXPECT_THAT(log_records(), ElementsAre(this->unresolved(), this->send_error(EHOSTUNREACH)));
}

TYPED_TEST(EchoPathFailureTest, AddressOfTheOtherFamily) {
  this->fail(TypeParam::Version::kFamily.ipv6 ? "192.0.2.7" : "2001:db8::7");
  EXPECT_EQ(log_records().size(), 2u);
  EXPECT_THAT(log_records().back(), this->send_error(EHOSTUNREACH));
}

TYPED_TEST(EchoPathFailureTest, InterfaceThatTheSocketCannotBeBoundTo) {
  Fault fault("setsockopt", ENODEV);
  for (const auto& [device, said] :
       {std::pair("ge1/2", "ge1/2"), std::pair("", "unknown interface")}) {
    recorded_device::name_interface(this->ifname_, device);
    clear_log();
    this->fail();
    EXPECT_THAT(log_records(), ElementsAre(LoggedError(std::string(TypeParam::kNotBound) + said),
                                           this->send_error(ENODEV)));
  }
}

TYPED_TEST(EchoPathFailure4Test, NameIsResolvedAndThenRefused) {
  this->network_.known_hosts["probe.example"] = {"192.0.2.77"};
  this->fail("probe.example");
  EXPECT_THAT(log_records(), ElementsAre(LoggedError("inet_aton() failed: Invalid argument"),
                                         this->send_error(EINVAL)));
  // The socket was bound first.
  EXPECT_THAT(this->network_.option_names(this->sockets()->send_socket.get()),
              Contains(SO_BINDTODEVICE));
}

// The link-level path.

TYPED_TEST(EchoPathFailureTest, NoSocketToAskThrough) {
  this->use_frames();
  Fault fault("socket", EMFILE, 0, 1);
  this->fail();
  EXPECT_THAT(log_records(),
              ElementsAre(LoggedError("socket() failed to get socket descriptor for using ioctl() "
                                      "Too many open files"),
                          this->send_error(EMFILE)));
}

TYPED_TEST(EchoPathFailureTest, HardwareAddressThatCannotBeRead) {
  this->use_frames();
  this->network_.ioctl_errors[SIOCGIFHWADDR] = EPERM;
  this->fail();
  EXPECT_THAT(log_records(), ElementsAre(LoggedError(std::string(TypeParam::kNoHardwareAddress) +
                                                     " Operation not permitted"),
                                         this->send_error(EPERM)));
}

TYPED_TEST(EchoPathFailureTest, InterfaceThatIsNotThereIsNoError) {
  this->use_frames();
  this->network_.ioctl_errors[SIOCGIFHWADDR] = ENODEV;
  this->fail();
  EXPECT_THAT(log_records(), ElementsAre(this->send_error(ENODEV)));
}

TYPED_TEST(EchoPathFailureTest, InterfaceWithoutAnIndex) {
  this->use_frames();
  this->network_.ioctl_errors[SIOCGIFINDEX] = ENODEV;
  this->fail();
  EXPECT_THAT(log_records(),
              ElementsAre(LoggedError("if_nametoindex() failed to obtain interface index No such "
                                      "device"),
                          this->send_error(ENODEV)));
}

TYPED_TEST(EchoPathFailure4Test, InterfaceWithoutAnAddress) {
  this->use_frames();
  this->interface_.source_address.clear();
  this->network_.ioctl_errors[SIOCGIFADDR] = EADDRNOTAVAIL;
  this->fail();
  EXPECT_THAT(log_records(), ElementsAre(this->send_error(EADDRNOTAVAIL)));
}

TYPED_TEST(EchoPathFailure4Test, AddressThatNoInterfaceHas) {
  this->use_frames();
  this->interface_.source_address = "192.0.2.50";
  this->fail();
  EXPECT_THAT(log_records(),
              ElementsAre(LoggedError(TypeParam::kSourceAbsent), this->send_error(EADDRNOTAVAIL)));
  EXPECT_EQ(this->network_.ioctl_calls[SIOCGARP], 0);
}

TYPED_TEST(EchoPathFailure4Test, TableThatCannotBeAsked) {
  this->use_frames();
  this->network_.ioctl_errors[SIOCGARP] = EPERM;
  this->fail();
  EXPECT_THAT(log_records(),
              ElementsAre(LoggedError("<check_arp_exist> Ioctl Operation not permitted(1)"),
                          this->send_error(EHOSTUNREACH)));
  EXPECT_EQ(this->network_.ioctl_calls[SIOCGARP], 1);  // and it is not waited for
  EXPECT_THAT(this->network_.conntrack_requests, IsEmpty());
  EXPECT_EQ(call_count("pthread_create"), 0);
}

TYPED_TEST(EchoPathFailure4Test, NextHopIsPolledAHundredAndOneTimes) {
  this->use_frames();
  this->network_.arp_flags = 0;  // nobody answers
  this->fail();
  EXPECT_EQ(this->network_.ioctl_calls[SIOCGARP], 1 + 101);
  EXPECT_THAT(virtual_clock::sleeps(),
              testing::AllOf(testing::SizeIs(100), testing::Each(std::chrono::milliseconds(1))));
  EXPECT_THAT(this->network_.conntrack_requests, IsEmpty());
  EXPECT_THAT(log_records(), ElementsAre(this->send_error(EHOSTUNREACH)));
}

TYPED_TEST(EchoPathFailureTest, TargetThatIsNoAddress) {
  this->use_frames();
  this->fail("probe.example");
  EXPECT_THAT(log_records(), ElementsAre(LoggedError("inet_pton() failed.\nError message: Success"),
                                         this->send_error(EINVAL)));
  EXPECT_THAT(this->network_.conntrack_requests, IsEmpty());
}

// Sending, and the flags of the messages.

TYPED_TEST(EchoPathFailureTest, FullQueueIsAFailedSend) {
  for (const int error : {ENOBUFS, EAGAIN}) {
    clear_log();
    Fault fault("sendto", error);
    this->fail();
    EXPECT_THAT(log_records(), ElementsAre(this->send_error(error)));
  }
}

TYPED_TEST(EchoPathFailureTest, FullQueueIsAFailedSendOfAFrameToo) {
  this->use_frames();
  for (const int error : {ENOBUFS, EAGAIN}) {
    clear_log();
    Fault fault("sendto", error);
    this->fail();
    EXPECT_THAT(log_records(), ElementsAre(this->send_error(error)));
  }
}

TYPED_TEST(EchoPathFailureTest, UnreachableNetworkIsNoNews) {
  Fault fault("sendto", ENETUNREACH);
  this->fail();
  EXPECT_THAT(log_records(), IsEmpty());
}

TYPED_TEST(EchoPathFailureTest, MessagesNeedTheirFlags) {
  set_log_flag(1, false);
  {
    Fault fault("setsockopt", ENODEV);
    this->fail();
  }
  this->use_frames();
  this->fail("probe.example");
  EXPECT_THAT(log_records(), ElementsAre(this->send_error(ENODEV), this->send_error(EINVAL)));
  clear_log();
  set_log_flag(1, true);
  set_log_flag(3, false);
  this->network_.ioctl_errors[SIOCGIFHWADDR] = ENODEV;
  this->fail();
  EXPECT_THAT(log_records(), IsEmpty());
}
