// Echo tests over a real link: what leaves by the interface, and the far end's kernel answering.
#include "tests/echo_probe.h"

#include <gmock/gmock.h>
#include <linux/if_ether.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

#include "support/recorded_log.h"
#include "tests/burst_probe.h"
#include "tests/io/probes_in_flight.h"
#include "tests/link/arp_prober.h"
#include "tests/link/neighbor_prober.h"
#include "veth_test.h"

using testing::IsEmpty;

namespace {

// The far end lives in a namespace of its own, so that its kernel answers for it.
class KernelEcho : public VethTest {
 protected:
  void SetUp() override {
    VethTest::SetUp();
    static int number = 0;
    number_ = std::to_string(++number);
    near_address_ = "10.78." + number_ + ".1";
    far_address_ = "10.78." + number_ + ".2";
    near_address6_ = "2001:db8:78:" + number_ + "::1";
    far_address6_ = "2001:db8:78:" + number_ + "::2";
    // Named namespaces are files: in a directory that goes with the test.
    ASSERT_EQ(mount("tmpfs", "/run", "tmpfs", 0, nullptr), 0);
    ASSERT_EQ(mkdir("/run/netns", 0755), 0);
    run("ip netns add far");
    run("ip link set " + far() + " netns far");
    far_run("ip link set lo up");
    far_run("ip link set " + far() + " up");
    run("ip addr add " + near_address_ + "/24 dev " + near());
    run("ip addr add " + near_address6_ + "/64 nodad dev " + near());
    far_run("ip addr add " + far_address_ + "/24 dev " + far());
    far_run("ip addr add " + far_address6_ + "/64 nodad dev " + far());
    wait_known(far_address_);
    wait_known(far_address6_);
    interface_ = std::make_unique<LBInterface>(near(), false);
    interface6_ = std::make_unique<LBInterface>(near(), true);
    interface_->nexthop = far_address_;
    interface6_->nexthop = far_address6_;
    interface6_->source_address = near_address6_;
    arp_.init("echo" + number_);
    neighbor_.init("echo" + number_);
    worker_.arp = &arp_;
    worker_.vrf = "echo" + number_;
    worker6_.neighbor = &neighbor_;
    worker6_.vrf = worker_.vrf;
    worker6_.ipv6 = true;
    wire_ = open_on(near(), ETH_P_ALL);
  }

  void TearDown() override {
    VethTest::TearDown();
    run("ip netns del far");
    EXPECT_EQ(umount2("/run", MNT_DETACH), 0);
  }

  static void far_run(const std::string& command) { run("ip netns exec far " + command); }

  // Waits until the kernel has the address's neighbour entry. For a while it drops what a new link
  // sends, and does not hear questions for a new address; a single probe could come too early, and
  // its answer to a question too late.
  void wait_known(const std::string& address) const {
    run("bash -c 'for i in $(seq 2000); do echo >/dev/udp/" + address + "/9; ip neigh show to " +
        address.substr(0, address.find('%')) + " dev " + near() +
        " | grep -q lladdr && exit 0; sleep 0.01; done 2>/dev/null; exit 1'");
  }

  // Interfaces that resolve no addresses, which probes leave by the raw path. The kernel sends to
  // the interface's own address then, so both ends have the same.
  void use_no_arp() {
    run("ip link set " + near() + " address 02:00:00:00:00:01 arp off");
    far_run("ip link set " + far() + " address 02:00:00:00:00:01 arp off");
  }

  // Runs the test until its probe is settled; its result.
  template <class Test>
  int32_t probe(Test& test, LBInterface& interface, const LBWorkerContext& worker) {
    EXPECT_TRUE(wait_for([&] {
      test.send(interface, worker);
      test.recv(interface, worker);
      return test.report().result != kResultNone;
    }));
    return test.report().result;
  }

  // The next frame of the ICMP type, with `offset` bytes in front of the message.
  Bytes next_of_type(size_t offset, uint8_t type, uint16_t ether_type) {
    return next_frame(wire_, [&](const Bytes& frame) {
      return frame.size() > offset && (frame[12] << 8 | frame[13]) == ether_type &&
             frame[offset - (ether_type == ETH_P_IP ? 11 : 34)] ==
                 (ether_type == ETH_P_IP ? 1 : 58) &&
             frame[offset] == type;
    });
  }

  std::string number_, near_address_, far_address_, near_address6_, far_address6_;
  std::unique_ptr<LBInterface> interface_;
  std::unique_ptr<LBInterface> interface6_;
  LBArp arp_;
  LBNeighbor neighbor_;
  LBWorkerContext worker_;
  LBWorkerContext worker6_;
  FileDescriptor wire_;
};

constexpr size_t kMessage = 14 + 20;
constexpr size_t kMessage6 = 14 + 40;

}  // namespace

TEST_F(KernelEcho, FrameIsAnsweredByTheNextHop) {
  LBTestICMP test;
  test.init(*interface_);
  EXPECT_EQ(probe(test, *interface_, worker_), kResultSuccess);
  const Bytes request = next_of_type(kMessage, 8, ETH_P_IP);
  ASSERT_GE(request.size(), 46u);
  EXPECT_EQ(request[40] << 8 | request[41], 0);  // sequence
  const Bytes reply = next_of_type(kMessage, 0, ETH_P_IP);
  ASSERT_GE(reply.size(), 46u);
  // The far end's kernel took the checksums for right and sent identifier and key back.
  EXPECT_TRUE(std::equal(request.begin() + 38, request.begin() + 46, reply.begin() + 38));
  EXPECT_EQ(request[38] << 8 | request[39], getpid() & 0xffff);
  EXPECT_EQ(probes_in_flight(kIpv4).size(), 0u);
  EXPECT_THAT(log_records(), IsEmpty());
}

TEST_F(KernelEcho, Frame6IsAnsweredByTheNextHop) {
  LBTestICMP6 test;
  test.init(*interface6_);
  EXPECT_EQ(probe(test, *interface6_, worker6_), kResultSuccess);
  const Bytes request = next_of_type(kMessage6, 128, ETH_P_IPV6);
  const Bytes reply = next_of_type(kMessage6, 129, ETH_P_IPV6);
  ASSERT_GE(request.size(), 66u);
  ASSERT_GE(reply.size(), 66u);
  EXPECT_TRUE(std::equal(request.begin() + 58, request.begin() + 66, reply.begin() + 58));
  EXPECT_EQ(probes_in_flight(kIpv6).size(), 0u);
  EXPECT_THAT(log_records(), IsEmpty());
}

TEST_F(KernelEcho, LinkLocalSourceIsAnsweredToo) {
  run("ip addr add fe80::1/64 nodad dev " + near());
  far_run("ip addr add fe80::2/64 nodad dev " + far());
  wait_known("fe80::2%" + near());
  interface6_->source_address.clear();
  interface6_->nexthop = "fe80::2";
  LBTestICMP6 test;
  test.init(*interface6_);
  EXPECT_EQ(probe(test, *interface6_, worker6_), kResultSuccess);
}

TEST_F(KernelEcho, RawRequestIsAnswered) {
  use_no_arp();
  LBTestICMP test;
  test.init(*interface_);
  EXPECT_EQ(probe(test, *interface_, worker_), kResultSuccess);
  const Bytes request = next_of_type(kMessage, 8, ETH_P_IP);
  ASSERT_GE(request.size(), kMessage + 24);
  EXPECT_EQ(request[16] << 8 | request[17], 20 + 24);  // total length
  EXPECT_EQ(request[40] << 8 | request[41], 1);        // sequence
  EXPECT_THAT(log_records(), IsEmpty());
}

// The reply comes, but its first word is the time of sending.
TEST_F(KernelEcho, RawRequest6IsAnsweredButNotMatched) {
  use_no_arp();
  LBTestICMP6 test;
  test.set_number(TestKeyword::kResponseTime, 300);
  test.init(*interface6_);
  EXPECT_EQ(probe(test, *interface6_, worker6_), kResultFailure);
  const Bytes request = next_of_type(kMessage6, 128, ETH_P_IPV6);
  const Bytes reply = next_of_type(kMessage6, 129, ETH_P_IPV6);
  ASSERT_GE(request.size(), kMessage6 + 40);
  ASSERT_GE(reply.size(), kMessage6 + 40);
  EXPECT_TRUE(std::equal(request.begin() + kMessage6 + 8, request.begin() + kMessage6 + 40,
                         reply.begin() + kMessage6 + 8));
}

TEST_F(KernelEcho, SilentFarEndFailsByTimeOut) {
  far_run("sysctl -qw net.ipv4.icmp_echo_ignore_all=1");
  LBTestICMP test;
  test.set_number(TestKeyword::kResponseTime, 300);
  test.init(*interface_);
  EXPECT_EQ(probe(test, *interface_, worker_), kResultFailure);
}

TEST_F(KernelEcho, InterfaceThatDoesNotExistFailsByTimeOut) {
  LBInterface missing("lbnowhere", false);
  missing.nexthop = far_address_;
  LBTestICMP test;
  test.set_number(TestKeyword::kResponseTime, 100);
  test.init(missing);
  EXPECT_EQ(probe(test, missing, worker_), kResultFailure);
  EXPECT_THAT(log_records(), IsEmpty());
}

TEST_F(KernelEcho, BurstIsAnswered) {
  LBTestPING test;
  test.set_number(TestKeyword::kJitter, 1000);  // a busy machine is no bad link
  test.set_number(TestKeyword::kRtt, 1000);
  test.init(*interface_);
  test.send(*interface_, worker_);
  ASSERT_EQ(test.report().result, kResultSuccess);
  EXPECT_EQ(test.report().measurement->measured_loss, 0);
  EXPECT_THAT(log_records(), IsEmpty());
}

TEST_F(KernelEcho, RawBurstIsAnswered) {
  use_no_arp();
  LBTestPING test;
  test.set_number(TestKeyword::kJitter, 1000);
  test.set_number(TestKeyword::kRtt, 1000);
  test.init(*interface_);
  test.send(*interface_, worker_);
  ASSERT_EQ(test.report().result, kResultSuccess);
  EXPECT_EQ(test.report().measurement->measured_loss, 0);
}

TEST_F(KernelEcho, BurstWithoutReplyTakesOneWait) {
  far_run("sysctl -qw net.ipv4.icmp_echo_ignore_all=1");
  LBTestPING test;
  test.init(*interface_);
  const auto start = std::chrono::steady_clock::now();
  test.send(*interface_, worker_);
  const auto taken = std::chrono::steady_clock::now() - start;
  EXPECT_EQ(test.report().result, kResultFailure);
  EXPECT_GE(taken, std::chrono::milliseconds(1000));
  EXPECT_LT(taken, std::chrono::milliseconds(5000));
}

// Neither takes the other's replies.
TEST_F(KernelEcho, PingAndBurstOnOneInterface) {
  LBTestICMP ping;
  LBTestPING burst;
  burst.set_number(TestKeyword::kPeriod, 0);
  burst.set_number(TestKeyword::kJitter, 1000);  // a busy machine is no bad link
  burst.set_number(TestKeyword::kRtt, 1000);
  ping.init(*interface_);
  burst.init(*interface_);
  EXPECT_EQ(probe(ping, *interface_, worker_), kResultSuccess);  // its receiver runs now
  for (int cycle = 0; cycle < 5; ++cycle) {
    ping.send(*interface_, worker_);
    burst.send(*interface_, worker_);
    EXPECT_EQ(burst.report().result, kResultSuccess);
    EXPECT_EQ(burst.report().measurement->measured_loss, 0);
    ASSERT_TRUE(wait_for([&] {
      ping.recv(*interface_, worker_);
      return !probes_in_flight(kIpv4).find(near(), far_address_);
    }));
    EXPECT_EQ(ping.report().result, kResultSuccess);
  }
}
