// The sockets of an interface: which ones, once, shared, and what happens where they fail.
#include <sys/resource.h>

#include "support/echo_fixture.h"

using testing::ElementsAre;
using testing::IsEmpty;

namespace {

template <class IpVersion>
class InterfaceSocketsTest : public EchoFixture<IpVersion> {};

}  // namespace

TYPED_TEST_SUITE(InterfaceSocketsTest, BothFamilies, FamilyName);

TYPED_TEST(InterfaceSocketsTest, ThreeSocketsOfTheFamily) {
  using Kit = EchoKit<TypeParam>;
  const auto sockets = this->sockets();
  const auto& made = this->network_.sockets;
  ASSERT_EQ(made.size(), 3u);

  EXPECT_EQ(made[0].domain, Kit::kDomain);
  EXPECT_EQ(made[0].type, SOCK_RAW);
  EXPECT_EQ(made[0].protocol, Kit::kProtocol);
  EXPECT_EQ(sockets->send_socket.get(), made[0].fd);

  EXPECT_EQ(made[1].domain, AF_PACKET);
  EXPECT_EQ(made[1].type, SOCK_RAW);
  EXPECT_EQ(made[1].protocol, 0) << "or it would see every packet";
  EXPECT_EQ(sockets->packet_socket.get(), made[1].fd);

  EXPECT_EQ(made[2].domain, Kit::kDomain);
  EXPECT_EQ(made[2].type, SOCK_RAW);
  EXPECT_EQ(made[2].protocol, Kit::kProtocol);
  EXPECT_EQ(sockets->recv_socket.get(), made[2].fd);

  for (const auto& socket : made) EXPECT_TRUE(socket.close_on_exec);
  EXPECT_THAT(log_records(), IsEmpty());
}

TYPED_TEST(InterfaceSocketsTest, SendingSocketsMayReuseAddresses) {
  this->sockets();
  const auto& made = this->network_.sockets;
  ASSERT_EQ(made.size(), 3u);
  int on = 0;
  for (const auto& option : this->network_.options) {
    if (option.name != SO_REUSEADDR) continue;
    EXPECT_EQ(option.level, SOL_SOCKET);
    ASSERT_EQ(option.value.size(), sizeof(on));
    std::memcpy(&on, option.value.data(), sizeof(on));
    EXPECT_EQ(on, 1);
  }
  // And receive nothing.
  const auto names = this->network_.option_names(made[0].fd);
  EXPECT_EQ(names.front(), SO_REUSEADDR);
  EXPECT_GT(names.size(), 1u) << "filters";
  EXPECT_THAT(this->network_.option_names(made[1].fd), ElementsAre(SO_REUSEADDR));
  // The receiving socket has its usual size until somebody reads it.
  for (const auto& option : this->network_.options) {
    EXPECT_FALSE(option.level == SOL_SOCKET && option.name == SO_RCVBUF);
  }
}

TYPED_TEST(InterfaceSocketsTest, NothingIsBound) {
  const int before = call_count("bind");
  this->sockets();
  EXPECT_EQ(call_count("bind"), before);
}

TYPED_TEST(InterfaceSocketsTest, OptionThatCannotBeSetIsNoFailure) {
  Fault fault("setsockopt", EINVAL);
  EXPECT_TRUE(this->sockets()->recv_socket.valid());
  EXPECT_THAT(log_records(), IsEmpty());
}

TYPED_TEST(InterfaceSocketsTest, SecondInitMakesNoSocketAndNoMutex) {
  auto test = this->make_test();
  EXPECT_EQ(this->network_.sockets.size(), 3u);
  const auto sockets = this->sockets();
  const auto other = std::make_unique<typename EchoKit<TypeParam>::Test>();
  const int mutexes = call_count("pthread_mutex_init");
  other->init(this->interface_);
  test->init(this->interface_);
  EXPECT_EQ(this->network_.sockets.size(), 3u);
  EXPECT_EQ(call_count("pthread_mutex_init"), mutexes);
  EXPECT_EQ(this->sockets(), sockets);
}

TYPED_TEST(InterfaceSocketsTest, FamiliesAndNamesHaveTheirOwn) {
  using Other = std::conditional_t<TypeParam::kFamily.ipv6, Ipv4, Ipv6>;
  this->sockets();
  sockets_of(Other::kFamily, this->ifname_);
  EXPECT_EQ(this->network_.sockets.size(), 6u);
  sockets_of(TypeParam::kFamily, unused_name("lb"));
  EXPECT_EQ(this->network_.sockets.size(), 9u);
}

TYPED_TEST(InterfaceSocketsTest, FailureIsLoggedAndNotTriedAgain) {
  for (int failing = 0; failing < 3; ++failing) {
    const std::string ifname = unused_name("lb");
    clear_log();
    this->network_.sockets.clear();
    std::shared_ptr<InterfaceSockets> sockets;
    {
      Fault fault("socket", EPERM, failing, 1);
      sockets = sockets_of(TypeParam::kFamily, ifname);
    }
    EXPECT_THAT(log_records(), ElementsAre(LoggedError("wan_lb: failed to acquired socket")));
    EXPECT_EQ(sockets->send_socket.valid(), failing > 0);
    EXPECT_EQ(sockets->packet_socket.valid(), failing > 1);
    EXPECT_FALSE(sockets->recv_socket.valid());
    EXPECT_EQ(this->network_.sockets.size(), static_cast<size_t>(failing));

    EXPECT_EQ(sockets_of(TypeParam::kFamily, ifname), sockets);
    EXPECT_EQ(this->network_.sockets.size(), static_cast<size_t>(failing));
  }
}

TYPED_TEST(InterfaceSocketsTest, FailureIsSilentWithoutTheFlag) {
  set_log_flag(1, false);
  Fault fault("socket", EPERM);
  this->sockets();
  EXPECT_THAT(log_records(), IsEmpty());
}

TYPED_TEST(InterfaceSocketsTest, MutexThatCannotBeMadeIsLogged) {
  CallHook hook(wrapped::pthread_mutex_init,
                [](pthread_mutex_t* mutex, const pthread_mutexattr_t* attributes) {
                  EXPECT_EQ(attributes, nullptr);
                  wrapped::pthread_mutex_init.real(mutex, attributes);
                  return EAGAIN;
                });
  this->sockets();
  EXPECT_THAT(log_records(), ElementsAre(LoggedError("wan_lb: error mutex initialization")));
}

TYPED_TEST(InterfaceSocketsTest, MutexIsNotMentionedAfterASocketFailed) {
  CallHook hook(wrapped::pthread_mutex_init,
                [](pthread_mutex_t* mutex, const pthread_mutexattr_t* attributes) {
                  wrapped::pthread_mutex_init.real(mutex, attributes);
                  return EAGAIN;
                });
  Fault fault("socket", EPERM);
  this->sockets();
  EXPECT_THAT(log_records(), ElementsAre(LoggedError("wan_lb: failed to acquired socket")));
}

TYPED_TEST(InterfaceSocketsTest, EndOfATestClosesTheSocketsOfAll) {
  auto test = this->make_test();
  auto other = this->make_test();
  const auto made = this->network_.sockets;
  ASSERT_EQ(made.size(), 3u);
  for (const auto& socket : made) EXPECT_FALSE(FakeNetwork::is_closed(socket));
  test.reset();
  for (const auto& socket : made) EXPECT_TRUE(FakeNetwork::is_closed(socket));

  // The name stays known, so nobody makes them again.
  const auto late = this->make_test();
  other->send(this->interface_, this->worker_);
  EXPECT_FALSE(this->sockets()->send_socket.valid());
  EXPECT_FALSE(this->sockets()->packet_socket.valid());
  EXPECT_FALSE(this->sockets()->recv_socket.valid());
  EXPECT_TRUE(this->probe_to(EchoKit<TypeParam>::kTarget).has_value());
  this->probes().erase(this->probe_to(EchoKit<TypeParam>::kTarget)->key);
}

TYPED_TEST(InterfaceSocketsTest, EndOfATestThatWasNeverBoundClosesNothing) {
  const auto test = this->make_test();
  { typename EchoKit<TypeParam>::Test unbound; }
  for (const auto& socket : this->network_.sockets) EXPECT_FALSE(FakeNetwork::is_closed(socket));
}

TYPED_TEST(InterfaceSocketsTest, LockFailuresAreLogged) {
  pthread_mutex_t* const mutex = this->acquire_mutex();
  ASSERT_NE(mutex, nullptr);
  InterfaceMutex& lock = this->sockets()->mutex;
  {
    BrokenLock broken(mutex, EINVAL);
    EXPECT_FALSE(lock.lock("recv"));
  }
  EXPECT_THAT(log_records(), ElementsAre(this->logged_mutex_failure("recv", "lock", EINVAL)));
  clear_log();
  EXPECT_TRUE(lock.lock("send"));
  EXPECT_THAT(log_records(), IsEmpty());
  {
    BrokenUnlock broken(mutex, EPERM);
    EXPECT_FALSE(lock.unlock("send"));
  }
  EXPECT_THAT(log_records(), ElementsAre(this->logged_mutex_failure("send", "unlock", EPERM)));
}

// A system without a protocols database, or with one of its own.
TEST(InterfaceSockets6Test, ComesFromTheProtocolsDatabase) {
  FakeNetwork network;
  std::string asked;
  CallHook hook(wrapped::getprotobyname_r,
                [&](const char* name, protoent* entry, char*, size_t, protoent** result) {
                  asked = name;
                  entry->p_proto = 199;
                  *result = entry;
                  return 0;
                });
  sockets_of(kIpv6, unused_name("lb"));
  EXPECT_EQ(asked, "ipv6-icmp");
  ASSERT_EQ(network.sockets.size(), 3u);
  EXPECT_EQ(network.sockets[0].protocol, 199);
  EXPECT_EQ(network.sockets[2].protocol, 58);
}

TEST(InterfaceSockets6Test, IsFiftyEightWithoutADatabase) {
  FakeNetwork network;
  {
    CallHook hook(wrapped::getprotobyname_r,
                  [](const char*, protoent*, char*, size_t, protoent** result) {
                    *result = nullptr;
                    return 0;
                  });
    sockets_of(kIpv6, unused_name("lb"));
  }
  Fault fault("getprotobyname_r", ENOENT);
  sockets_of(kIpv6, unused_name("lb"));
  ASSERT_EQ(network.sockets.size(), 6u);
  EXPECT_EQ(network.sockets[0].protocol, 58);
  EXPECT_EQ(network.sockets[3].protocol, 58);
  EXPECT_THAT(log_records(), IsEmpty());
}

TEST(InterfaceSockets4Test, NeedsNoDatabase) {
  FakeNetwork network;
  sockets_of(kIpv4, unused_name("lb"));
  EXPECT_EQ(call_count("getprotobyname_r"), 0);
}
