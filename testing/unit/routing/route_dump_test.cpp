// The exchange with the kernel, and what becomes of a dump that goes wrong.
#include "routing/route_dump.h"

#include <gmock/gmock.h>
#include <sys/time.h>

#include "support/dump_answers.h"

using testing::ElementsAre;
using testing::ElementsAreArray;
using testing::IsEmpty;

namespace {

class RouteDumpTest : public testing::Test {
 protected:
  // The types of the entries.
  Dump<int> dump() {
    return dump_entries<int>(kRequest, [](const NetlinkMessage& message, std::vector<int>& types) {
      types.push_back(message.header.nlmsg_type);
    });
  }

  static Bytes entry_of(uint16_t type, uint16_t flags = 0) {
    Bytes bytes = netlink_message(type, 28);
    set(bytes, 6, flags);
    return bytes;
  }

  const Bytes kRequest = netlink_message(RTM_GETROUTE, 28);
  DumpAnswers kernel_;
};

}  // namespace

TEST_F(RouteDumpTest, EntriesOfAllReads) {
  Bytes both = entry_of(100);
  append(both, entry_of(101));
  kernel_.reads = {both, entry_of(102), dump_end()};
  const auto result = dump();
  EXPECT_EQ(result.error, 0);
  EXPECT_THAT(result.entries, ElementsAre(100, 101, 102));
  ASSERT_EQ(kernel_.requests.size(), 1u);
  EXPECT_THAT(kernel_.requests[0].second, ElementsAreArray(kRequest));
}

TEST_F(RouteDumpTest, SocketIsAskedStrictlyWaitsASecondAndIsClosed) {
  kernel_.reads = {dump_end()};
  dump();
  const auto socket = kernel_.last_socket(AF_NETLINK, SOCK_RAW, NETLINK_ROUTE);
  EXPECT_TRUE(socket.close_on_exec);
  EXPECT_EQ(kernel_.requests.at(0).first, socket.fd);
  EXPECT_THAT(kernel_.option_names(socket.fd), ElementsAre(SO_RCVTIMEO, NETLINK_GET_STRICT_CHK));
  timeval patience{};
  std::memcpy(&patience, kernel_.options.at(0).value.data(), sizeof(patience));
  EXPECT_EQ(patience.tv_sec, 1);
  EXPECT_TRUE(FakeSockets::is_closed(socket));
}

TEST_F(RouteDumpTest, OldKernelSendsAll) {
  const Fault strict("setsockopt", ENOPROTOOPT, 1);
  kernel_.reads = {entry_of(100), dump_end()};
  const auto result = dump();
  EXPECT_EQ(result.error, 0);
  EXPECT_THAT(result.entries, ElementsAre(100));
}

TEST_F(RouteDumpTest, SocketThatCouldWaitForEverIsNotUsed) {
  const Fault patience("setsockopt", EPERM, 0, 1);
  EXPECT_EQ(dump().error, EPERM);
  EXPECT_THAT(kernel_.requests, IsEmpty());
}

TEST_F(RouteDumpTest, InterruptedDumpIsReadAgain) {
  kernel_.reads = {entry_of(100), dump_end(NLM_F_DUMP_INTR), entry_of(200), dump_end()};
  const auto result = dump();
  EXPECT_EQ(result.error, 0);
  EXPECT_THAT(result.entries, ElementsAre(200));
  EXPECT_EQ(kernel_.requests.size(), 2u);
}

TEST_F(RouteDumpTest, InterruptionOfAnyMessageCounts) {
  kernel_.reads = {entry_of(100, NLM_F_DUMP_INTR), dump_end(), entry_of(200), dump_end()};
  EXPECT_THAT(dump().entries, ElementsAre(200));
}

TEST_F(RouteDumpTest, TableThatNeverRestsIsAFailure) {
  for (int i = 0; i < 20; ++i) kernel_.reads.push_back(dump_end(NLM_F_DUMP_INTR));
  EXPECT_EQ(dump().error, EINTR);
  EXPECT_EQ(kernel_.requests.size(), 5u);
}

TEST_F(RouteDumpTest, RefusalIsItsError) {
  for (const Bytes& refusal : {error_message(-EPERM), dump_end(0, -EPERM)}) {
    kernel_.reads = {entry_of(100), refusal};
    EXPECT_EQ(dump().error, EPERM);
  }
}

TEST_F(RouteDumpTest, AnswerThatDoesNotCome) {
  kernel_.reads = {entry_of(100)};
  EXPECT_EQ(dump().error, EAGAIN);
}

TEST_F(RouteDumpTest, ReadThatIsTooLong) {
  kernel_.reads = {Bytes(65537)};
  EXPECT_EQ(dump().error, EMSGSIZE);
  kernel_.reads = {Bytes()};
  EXPECT_EQ(dump().error, EPIPE);
}

TEST_F(RouteDumpTest, SignalDoesNotEndTheRead) {
  const Fault signal("recv", EINTR, 0, 2);
  kernel_.reads = {dump_end()};
  EXPECT_EQ(dump().error, 0);
}

TEST_F(RouteDumpTest, FailedCalls) {
  {
    const Fault fault("socket", EMFILE);
    EXPECT_EQ(dump().error, EMFILE);
  }
  {
    const Fault fault("send", ENOBUFS);
    EXPECT_EQ(dump().error, ENOBUFS);
  }
  const Fault fault("recv", ENOBUFS);
  EXPECT_EQ(dump().error, ENOBUFS);
}
