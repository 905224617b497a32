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

TEST_F(NeighborProberSolicitationTest, NothingSentClosesTheSocketToo) {
  {
    CallHook hook(wrapped::sendto,
                  [](int, const void*, size_t size, int flags, const sockaddr*, socklen_t) {
                    EXPECT_EQ(size, 86u);
                    EXPECT_EQ(flags, 0);
                    errno = EAGAIN;
                    return ssize_t{0};
                  });
    EXPECT_EQ(solicit(), "sendto() failed: Resource temporarily unavailable\n");
  }
  EXPECT_EQ(solicit(), "sendto() failed: Bad file descriptor\n");
  EXPECT_THAT(log_records(), IsEmpty());
}

// The socket is the VRF's: another prober of it gets one of its own with init.
TEST_F(NeighborProberSolicitationTest, SocketComesBackWithTheNextInit) {
  {
    Fault fault("sendto", ENETDOWN);
    solicit();
  }
  prober_.init(vrf());
  EXPECT_EQ(solicit(), "");
  EXPECT_EQ(network_.sent.size(), 1u);
}

TEST_F(NeighborProberSolicitationTest, LongInterfaceNameIsCut) {
  prober_.set_target("2001:db8::1", "2001:db8::9", "an-interface-name-too-long");
  EXPECT_EQ(solicit(), "");
  ASSERT_EQ(network_.interface_requests.size(), 1u);
  EXPECT_STREQ(network_.interface_requests[0].ifr_name, "an-interface-na");
}
