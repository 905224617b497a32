// IPv6 probes whose source is found on the host: whose address the frame and the tracker get.
#include "support/echo_fixture.h"

using testing::ElementsAre;
using testing::SizeIs;

namespace {

class SourceAddressNamesakeTest : public EchoFixture<Ipv6> {
 protected:
  SourceAddressNamesakeTest() : test_(make_test()) {}
  ~SourceAddressNamesakeTest() override {
    const auto left = probe_to(EchoKit<Ipv6>::kTarget);
    if (left) probes().erase(left->key);
  }

  // The source address of the frame that a probe sends.
  std::string source_of_probe() {
    test_->send(interface_, worker_);
    if (network_.sent.empty() || network_.sent.back().bytes.size() < 38) return "no frame";
    char text[INET6_ADDRSTRLEN];
    return inet_ntop(AF_INET6, network_.sent.back().bytes.data() + 22, text, sizeof(text));
  }

  std::unique_ptr<LBTestICMP6> test_;
};

}  // namespace

TEST_F(SourceAddressNamesakeTest, FirstNameThatBeginsAlikeCounts) {
  network_.addresses = {{ifname_ + "0", "2080:1::5"}, {ifname_, "fe80::2"}};
  EXPECT_EQ(source_of_probe(), "2080:1::5");
}

TEST_F(SourceAddressNamesakeTest, ListThatCannotBeReadLeavesNoSource) {
  Fault fault("getifaddrs", ENOMEM);
  EXPECT_EQ(source_of_probe(), "::");
  EXPECT_THAT(log_records(), ElementsAre(LoggedError("getifaddrs")));
  EXPECT_THAT(network_.conntrack_requests, SizeIs(1));
}

// Without a record nothing of the source is known to the tracker: both come from one place.
TEST_F(SourceAddressNamesakeTest, TrackerGetsTheSourceOfTheFrame) {
  network_.addresses = {{ifname_, "fe12::5"}};
  EXPECT_EQ(source_of_probe(), "fe12::5");
  in6_addr source;
  inet_pton(AF_INET6, "fe12::5", &source);
  ASSERT_THAT(network_.conntrack_requests, SizeIs(1));
  const Bytes& record = network_.conntrack_requests[0];
  const auto* bytes = reinterpret_cast<const uint8_t*>(&source);
  EXPECT_NE(std::search(record.begin(), record.end(), bytes, bytes + sizeof(source)), record.end());
}
