// Where a solicitation's destination comes from, and failures that leave it unsent.
#include "support/link_fixture.h"

using testing::IsEmpty;

namespace {

class NeighborProberSolicitationTest : public LinkFixture<Neighbor> {
 protected:
  NeighborProberSolicitationTest() {
    prober_.init(vrf());
    prober_.set_target("2001:db8::1:2:3", "2001:db8::9", "eth0");
  }

  std::string solicit() {
    CapturedStderr output;
    prober_.send_solicit();
    return output.text();
  }

  // The last one that was opened for sending and is open still.
  FakeNetwork::Socket send_socket() const {
    FakeNetwork::Socket found;
    for (const FakeNetwork::Socket& socket : network_.sockets) {
      if (!FakeNetwork::is_closed(socket)) found = socket;
    }
    return found;
  }

  LBNeighbor prober_;
};

}  // namespace

TEST_F(NeighborProberSolicitationTest, PrefixIsThatOfTheResolvedAddress) {
  CallHook hook(wrapped::getaddrinfo, [](const char*, const char* service, const addrinfo* hints,
                                         addrinfo** result) {
    return wrapped::getaddrinfo.real("ff05:0:1::aabb:ccdd:eeff", service, hints, result);
  });
  EXPECT_EQ(solicit(), "");
  ASSERT_EQ(network_.sent.size(), 1u);
  const Bytes& frame = network_.sent[0].bytes;
  // All but the last three bytes, which are the target's.
  EXPECT_EQ(Bytes(frame.begin() + 38, frame.begin() + 54),
            address_bytes("ff05:0:1::aabb:cc02:0003"));
  // The Ethernet address is made from the target alone.
  EXPECT_EQ(Bytes(frame.begin(), frame.begin() + 6), (Bytes{0x33, 0x33, 0xff, 0x02, 0x00, 0x03}));
}

TEST_F(NeighborProberSolicitationTest, PrefixThatIsNoAddress) {
  CallHook hook(wrapped::inet_ntop, [](int, const void*, char* text, socklen_t size) {
    EXPECT_EQ(size, 46u);
    return static_cast<const char*>(std::strcpy(text, "nonsense"));
  });
  EXPECT_EQ(solicit(), "inet_pton() failed.\nError message: Success");
  EXPECT_THAT(network_.sent, IsEmpty());
  EXPECT_THAT(log_records(), IsEmpty());
}

TEST_F(NeighborProberSolicitationTest, FailedSendingClosesTheSocketAndTheNextOneOpensAnother) {
  for (const int error : {ENETDOWN, EAGAIN, ENOBUFS}) {
    network_.sent.clear();
    const FakeNetwork::Socket before = send_socket();
    {
      Fault fault("sendto", error);
      EXPECT_EQ(solicit(), std::string("sendto() failed: ") + strerror(error) + "\n");
    }
    EXPECT_TRUE(FakeNetwork::is_closed(before)) << error;
    EXPECT_EQ(solicit(), "");
    ASSERT_EQ(network_.sent.size(), 1u);
    const FakeNetwork::Socket after = send_socket();
    EXPECT_NE(after.peer, before.peer);
    EXPECT_EQ(network_.sent[0].fd, after.fd);
    EXPECT_EQ(after.type, SOCK_RAW);
    EXPECT_TRUE(after.close_on_exec);
  }
  EXPECT_THAT(log_records(), IsEmpty());
}

TEST_F(NeighborProberSolicitationTest, NothingSentClosesTheSocketToo) {
  {
    CallHook hook(wrapped::sendto,
                  [](int, const void*, size_t size, int flags, const sockaddr*, socklen_t) {
                    EXPECT_EQ(size, 86u);
                    EXPECT_EQ(flags, MSG_DONTWAIT);
                    errno = EAGAIN;
                    return ssize_t{0};
                  });
    EXPECT_EQ(solicit(), "sendto() failed: Resource temporarily unavailable\n");
  }
  EXPECT_TRUE(FakeNetwork::is_closed(network_.sockets.at(0)));
  EXPECT_EQ(solicit(), "");
  EXPECT_THAT(log_records(), IsEmpty());
}

TEST_F(NeighborProberSolicitationTest, SocketThatCannotBeOpenedAgainIsTriedByEachSolicitation) {
  {
    Fault fault("sendto", ENETDOWN);
    solicit();
  }
  {
    Fault fault("socket", EMFILE);
    EXPECT_EQ(solicit(), "sendto() failed: Bad file descriptor\n");
  }
  EXPECT_THAT(network_.sent, IsEmpty());
  EXPECT_EQ(solicit(), "");
  EXPECT_EQ(network_.sent.size(), 1u);
}

// A new one takes no frames off the wire either.
TEST_F(NeighborProberSolicitationTest, SocketOpenedAgainQueuesNothing) {
  {
    Fault fault("sendto", ENETDOWN);
    solicit();
  }
  EXPECT_EQ(solicit(), "");
  network_.deliver_frame(htons(ETH_P_IPV6), Neighbor::reply());
  char byte;
  EXPECT_EQ(recv(network_.sent.at(0).fd, &byte, 1, MSG_DONTWAIT), -1);
}

TEST_F(NeighborProberSolicitationTest, LongInterfaceNameIsCut) {
  prober_.set_target("2001:db8::1", "2001:db8::9", "an-interface-name-too-long");
  // The kernel knows no name that is as long.
  EXPECT_EQ(solicit(), "if_nametoindex() failed to obtain interface index : No such device\n");
  ASSERT_EQ(network_.interface_requests.size(), 1u);
  EXPECT_STREQ(network_.interface_requests[0].ifr_name, "an-interface-na");
}
