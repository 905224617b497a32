// A burst whose replies are read from the wire.
#include "support/burst_fixture.h"
#include "support/sealed_packets.h"

using testing::ElementsAre;
using testing::IsEmpty;
using testing::SizeIs;
using namespace std::chrono_literals;

namespace {

class BurstProbeWireTest : public BurstFixture {
 protected:
  BurstProbeWireTest() {
    auto options = std::make_shared<Options>();
    options->wire_replies = true;
    wired_.options = options;
    wired_.nexthop = interface_.nexthop;
    wired_.vrf = vrf_;
    burst_.set_target(kTarget);
    burst_.init(wired_);
  }

  // What a packet socket delivers for a request on the raw path.
  static Bytes wire_reply_to(const Bytes& request) {
    Bytes packet{
        0x45, 0x00, 0x00, static_cast<uint8_t>(20 + request.size()),
        0x00, 0x00, 0x00, 0x00,  // identification, flags, offset
        0x40, 0x01, 0x00, 0x00,  // time to live 64, ICMP, checksum
        0xc6, 0x33, 0x64, 0x07,  // source 198.51.100.7
        0xc0, 0x00, 0x02, 0x01,  // destination 192.0.2.1
    };
    packet.insert(packet.end(), request.begin(), request.end());
    packet[20] = 0;
    seal(packet);
    return packet;
  }

  static Bytes changed(Bytes packet, size_t offset) {
    packet[offset] ^= 1;
    seal(packet);
    return packet;
  }

  // Replies come by recv, without a sender beside them.
  void send_burst() {
    CallHook wait(wrapped::ppoll, [this](pollfd* fds, nfds_t, const timespec*, const sigset_t*) {
      waited_on_ = fds->fd;
      virtual_clock::advance(1ms);  // a wait that finds nothing ends
      return arrivals_.empty() ? 0 : 1;
    });
    CallHook receive(wrapped::recv, [this](int fd, void* data, size_t, int flags) -> ssize_t {
      EXPECT_EQ(fd, waited_on_);
      EXPECT_EQ(flags, MSG_DONTWAIT);
      const Bytes packet = arrivals_.front().packet;
      arrivals_.pop_front();
      std::copy(packet.begin(), packet.end(), static_cast<uint8_t*>(data));
      return static_cast<ssize_t>(packet.size());
    });
    burst_.send(wired_, worker_);
  }

  LBInterface wired_{unused_name("lb"), false};
  LBTestPING burst_;
  int waited_on_ = -1;
};

}  // namespace

TEST_F(BurstProbeWireTest, IsAnswered) {
  answer_ = [this](size_t, const Bytes& request) { arrive(0ms, wire_reply_to(request)); };
  send_burst();
  EXPECT_EQ(burst_.report().result, kResultSuccess);
  EXPECT_EQ(burst_.report().measurement->measured_loss, 0);
  EXPECT_THAT(network_.sent, SizeIs(10));
  EXPECT_EQ(call_count("recvfrom"), 0);
  EXPECT_THAT(log_records(), IsEmpty());
}

TEST_F(BurstProbeWireTest, ReadsAPacketSocketOfItsOwn) {
  answer_ = [this](size_t, const Bytes& request) { arrive(0ms, wire_reply_to(request)); };
  send_burst();
  const auto socket = network_.last_socket(AF_PACKET, SOCK_DGRAM, 0);
  EXPECT_EQ(socket.fd, waited_on_);
  EXPECT_TRUE(FakeNetwork::is_closed(socket)) << "when the burst is over";
  const auto of_the_interface = sockets_of(kIpv4, wired_.origin);
  EXPECT_NE(of_the_interface->recv_socket.get(), waited_on_);
  EXPECT_THAT(network_.option_names(waited_on_), ElementsAre(SO_ATTACH_FILTER, SO_RCVBUFFORCE));
}

TEST_F(BurstProbeWireTest, OtherPacketsAreSkipped) {
  answer_ = [this](size_t, const Bytes& request) {
    const Bytes reply = wire_reply_to(request);
    arrive(0ms, changed(reply, 15));  // from 198.51.100.6
    arrive(0ms, changed(reply, 27));  // of another sequence
    arrive(0ms, changed(reply, 31));  // with another key
    arrive(0ms, changed(reply, 20));  // not an echo reply
    Bytes damaged = reply;
    damaged[25] ^= 1;
    arrive(0ms, damaged);
  };
  send_burst();
  EXPECT_EQ(burst_.report().result, kResultFailure);
  EXPECT_THAT(arrivals_, IsEmpty());
  EXPECT_THAT(network_.sent, SizeIs(1));
}

TEST_F(BurstProbeWireTest, GoesOnWhenTheDeviceWentDown) {
  answer_ = [this](size_t, const Bytes& request) { arrive(0ms, wire_reply_to(request)); };
  Fault fault("recv", ENETDOWN, 0, 1);
  send_burst();
  EXPECT_EQ(burst_.report().result, kResultSuccess);
}
