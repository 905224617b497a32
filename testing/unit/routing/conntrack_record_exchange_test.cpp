// The exchange with the connection tracker: room for its answer, and whose answer counts.
#include <linux/netlink.h>
#include <unistd.h>

#include <algorithm>

#include "routing/conntrack_record.h"
#include "support/echo_fixture.h"

using testing::ElementsAre;
using testing::IsEmpty;

namespace {

class ConntrackRecordExchangeTest : public testing::Test {
 protected:
  ConntrackRecordExchangeTest() { context_.vrf = unused_name("vrf"); }

  // Leaves no socket of this network behind: it ends with a failure.
  ~ConntrackRecordExchangeTest() override {
    Fault fault("nfct_new", ENOMEM);
    create();
  }

  int create() { return create_conntrack_record("192.0.2.1", "198.51.100.7", context_); }

  // An acknowledgement of the last request, for the socket with that port.
  ssize_t acknowledge(void* data, uint32_t port) const {
    nlmsghdr request{};
    std::memcpy(&request, network_.conntrack_requests.back().data(), sizeof(request));
    const nlmsghdr header{NLMSG_LENGTH(sizeof(nlmsgerr)), NLMSG_ERROR, 0, request.nlmsg_seq, port};
    std::memset(data, 0, header.nlmsg_len);
    std::memcpy(data, &header, sizeof(header));
    return static_cast<ssize_t>(header.nlmsg_len);
  }

  FakeNetwork network_;
  LBWorkerContext context_;
};

}  // namespace

TEST_F(ConntrackRecordExchangeTest, AnswerToAnotherSocket) {
  uint32_t port = 4712;  // the socket's is 4711
  CallHook hook(wrapped::mnl_socket_recvfrom,
                [&](const mnl_socket*, void* data, size_t) { return acknowledge(data, port); });
  EXPECT_EQ(create(), -1);
  EXPECT_THAT(log_records(), ElementsAre(LoggedError("<create_conntrack_record> "
                                                     "mnl_socket_recvfrom for ip version 4: No "
                                                     "such process")));
  clear_log();
  port = 4711;
  EXPECT_EQ(create(), 0);
  EXPECT_THAT(log_records(), IsEmpty());
}

TEST_F(ConntrackRecordExchangeTest, AnswerHasAPageOrEightKilobytes) {
  size_t room = 0;
  CallHook hook(wrapped::mnl_socket_recvfrom, [&](const mnl_socket*, void* data, size_t size) {
    room = size;
    return acknowledge(data, 4711);
  });
  EXPECT_EQ(create(), 0);
  EXPECT_EQ(room, static_cast<size_t>(std::min(sysconf(_SC_PAGESIZE), 8192L)));
}

// An answer that comes late must not be read by the next call.
TEST_F(ConntrackRecordExchangeTest, EveryFailureOpensAnotherSocket) {
  const char* const calls[] = {"mnl_socket_bind", "nfct_new", "mnl_socket_sendto",
                               "mnl_socket_recvfrom"};
  int opened = 0;
  int closed = 0;
  for (const char* const call : calls) {
    EXPECT_EQ(create(), 0) << call;
    const bool at_opening = std::string(call) == "mnl_socket_bind";
    if (at_opening) {  // make it open one
      Fault fault("nfct_new", ENOMEM);
      create();
      ++opened, ++closed;
    }
    {
      Fault fault(call, ENOMEM);
      EXPECT_EQ(create(), -1) << call;
    }
    ++opened, ++closed;
    EXPECT_EQ(call_count("mnl_socket_open2"), opened) << call;
    EXPECT_EQ(call_count("mnl_socket_close"), closed) << call;
  }
}
