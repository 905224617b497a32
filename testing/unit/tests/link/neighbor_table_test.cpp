// One neighbour's entry: the question, byte for byte, and what is made of the answers.
#include "tests/link/neighbor_table.h"

#include "support/link_fixture.h"

using testing::ElementsAre;
using testing::IsEmpty;
using testing::SizeIs;

namespace {

const std::string kTarget = "2001:db8::1:2:9";

class NeighborTableTest : public testing::Test {
 protected:
  int look(const std::string& target = kTarget) { return table_.get_mac(target, 7, mac_); }

  FakeNetwork network_;
  NeighborTable table_;
  MacAddress mac_{};
};

}  // namespace

TEST_F(NeighborTableTest, AsksForTheOneEntry) {
  network_.netlink_answers = {entry(kTarget, kMac)};
  EXPECT_EQ(look(), 1);
  EXPECT_EQ(mac_, kMac);
  Bytes expected(48);
  const nlmsghdr head{48, RTM_GETNEIGH, NLM_F_REQUEST, 0, 0};
  std::memcpy(expected.data(), &head, sizeof(head));
  const int32_t ifindex = 7;
  expected[16] = AF_INET6;
  std::memcpy(&expected[20], &ifindex, sizeof(ifindex));
  const rtattr attribute{20, NDA_DST};
  std::memcpy(&expected[28], &attribute, sizeof(attribute));
  const Bytes address = address_bytes(kTarget);
  std::copy(address.begin(), address.end(), expected.begin() + 32);
  EXPECT_THAT(network_.netlink_requests, ElementsAre(expected));
}

TEST_F(NeighborTableTest, KeepsItsSocket) {
  network_.netlink_answers = {entry(kTarget, kMac)};
  EXPECT_EQ(look(), 1);
  EXPECT_EQ(look(), 1);
  EXPECT_THAT(network_.sockets, SizeIs(1));
  EXPECT_EQ(network_.sockets[0].domain, AF_NETLINK);
  EXPECT_TRUE(network_.sockets[0].close_on_exec);
}

TEST_F(NeighborTableTest, NoEntryIsNoFailure) {
  network_.netlink_answers = {error_message(-ENOENT)};
  EXPECT_EQ(look(), 0);
  EXPECT_EQ(look(), 0);
  EXPECT_THAT(network_.sockets, SizeIs(1));
  EXPECT_THAT(log_records(), IsEmpty());
}

TEST_F(NeighborTableTest, EntryWithoutAnAddressAsYet) {
  network_.netlink_answers = {entry(kTarget, std::nullopt)};
  EXPECT_EQ(look(), 0);
  EXPECT_THAT(network_.netlink_requests, SizeIs(1));
}

// The kernel would know it; the text is compared all the same.
TEST_F(NeighborTableTest, TextThatIsNotCanonicalNeverMatches) {
  network_.netlink_answers = {entry(kTarget, kMac)};
  EXPECT_EQ(look("2001:0db8::1:2:9"), 0);
  EXPECT_EQ(look("2001:DB8::1:2:9"), 0);
}

TEST_F(NeighborTableTest, TextThatIsNoAddressIsNotAskedFor) {
  EXPECT_EQ(look("gateway.example"), 0);
  EXPECT_EQ(look(""), 0);
  EXPECT_EQ(look("192.0.2.1"), 0);
  EXPECT_THAT(network_.netlink_requests, IsEmpty());
}

// Before Linux 5.0 only the whole table can be asked for.
TEST_F(NeighborTableTest, KernelWithoutTheQuestionIsAskedForItsTable) {
  int questions = 0;
  CallHook hook(wrapped::send, [&](int fd, const void*, size_t size, int flags) {
    EXPECT_EQ(flags, MSG_DONTWAIT);
    ++questions;
    FakeNetwork::deliver(network_.socket_of(fd), error_message(-EOPNOTSUPP));
    return static_cast<ssize_t>(size);
  });
  network_.netlink_answers = {entry(kTarget, kMac)};
  EXPECT_EQ(look(), 1);
  EXPECT_EQ(questions, 1);
  ASSERT_THAT(network_.netlink_requests, SizeIs(1));
  nlmsghdr head;
  std::memcpy(&head, network_.netlink_requests[0].data(), sizeof(head));
  EXPECT_EQ(head.nlmsg_flags, NLM_F_REQUEST | NLM_F_ROOT | NLM_F_MATCH);
}

// What is still on its way must not be taken for the next answer.
TEST_F(NeighborTableTest, FailureOpensAnotherSocketForTheNextQuestion) {
  network_.netlink_answers = {entry(kTarget, kMac)};
  EXPECT_EQ(look(), 1);
  const int first = network_.sockets[0].fd;
  {
    Fault fault("recv", ENOBUFS, 0, 1);
    EXPECT_EQ(look(), 1) << "the table was asked for";
  }
  EXPECT_EQ(fcntl(first, F_GETFD), -1);
  {
    Fault fault("send", ENOBUFS, 0, 1);
    EXPECT_EQ(look(), 1);
  }
  EXPECT_EQ(look(), 1);
  EXPECT_THAT(log_records(), IsEmpty());
}

TEST_F(NeighborTableTest, SocketThatCannotBeOpened) {
  Fault fault("socket", EMFILE);
  EXPECT_EQ(look(), -1);
  EXPECT_THAT(log_records(), ElementsAre(LoggedError("Cannot open netlink socket")));
}
