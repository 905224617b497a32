// A record that exists already: it is refused, and another request renews its time.
#include <linux/netlink.h>

#include "support/conntrack_fixture.h"

using testing::ElementsAre;
using testing::IsEmpty;
using testing::SizeIs;

namespace {

class ConntrackRecordRenewalTest : public ConntrackFixture {
 protected:
  static auto refusal(const std::string& version) {
    return LoggedError("<create_conntrack_record> mnl_socket_recvfrom for ip version " + version +
                       ": File exists");
  }

  int renewal_answer_ = 0;
  std::vector<std::string> steps_;

 private:
  // The tracker knows every record.
  CallHook<ssize_t(const mnl_socket*, void*, size_t)> receive_hook_{
      wrapped::mnl_socket_recvfrom, [this](const mnl_socket*, void* data, size_t) {
        steps_.emplace_back("receive");
        const bool exclusive =
            (header_of(network_.conntrack_requests.back()).nlmsg_flags & NLM_F_EXCL) != 0;
        return answer(data, exclusive ? EEXIST : renewal_answer_);
      }};
  CallHook<mnl_socket*(int, int)> open_hook_{wrapped::mnl_socket_open2, [this](int, int) {
                                               steps_.emplace_back("open");
                                               static char socket[64];
                                               return reinterpret_cast<mnl_socket*>(socket);
                                             }};
  CallHook<int(mnl_socket*)> close_hook_{wrapped::mnl_socket_close, [this](mnl_socket*) {
                                           steps_.emplace_back("close");
                                           return 0;
                                         }};
};

}  // namespace

TEST_F(ConntrackRecordRenewalTest, RefusalStaysOne) {
  EXPECT_EQ(create(), -1);
  EXPECT_EQ(create6(), -1);
  EXPECT_THAT(log_records(), ElementsAre(refusal("4"), refusal("6")));
}

// Byte for byte the first request but for its flags: nothing is made, and none is excluded.
TEST_F(ConntrackRecordRenewalTest, RequestIsTheSameWithoutTheFlagsOfANewRecord) {
  const auto flags_at = static_cast<long>(offsetof(nlmsghdr, nlmsg_flags));
  for (const bool ipv6 : {false, true}) {
    network_.conntrack_requests.clear();
    EXPECT_EQ(ipv6 ? create6() : create(), -1);
    ASSERT_THAT(network_.conntrack_requests, SizeIs(2));
    EXPECT_EQ(header_of(network_.conntrack_requests[0]).nlmsg_flags, 0x0605);
    EXPECT_EQ(header_of(network_.conntrack_requests[1]).nlmsg_flags, 0x0005);
    for (Bytes& request : network_.conntrack_requests) {
      request.erase(request.begin() + flags_at, request.begin() + flags_at + 2);
    }
    EXPECT_EQ(network_.conntrack_requests[0], network_.conntrack_requests[1]);
  }
}

// The refusal was all of the answer: the socket is as good as before.
TEST_F(ConntrackRecordRenewalTest, CostsOneMessageAndNoSocket) {
  EXPECT_EQ(create(), -1);
  EXPECT_THAT(steps_, ElementsAre("open", "receive", "receive"));
  steps_.clear();
  EXPECT_EQ(create(), -1);
  EXPECT_THAT(steps_, ElementsAre("receive", "receive"));
}

TEST_F(ConntrackRecordRenewalTest, FailureIsSilentAndClosesTheSocket) {
  renewal_answer_ = ENOENT;  // the record has just gone
  EXPECT_EQ(create(), -1);
  EXPECT_THAT(log_records(), ElementsAre(refusal("4")));
  EXPECT_THAT(steps_, ElementsAre("open", "receive", "receive", "close"));
}

TEST_F(ConntrackRecordRenewalTest, IsForARecordThatExistsOnly) {
  CallHook hook(wrapped::mnl_socket_recvfrom,
                [this](const mnl_socket*, void* data, size_t) { return answer(data, ENOMEM); });
  EXPECT_EQ(create(), -1);
  EXPECT_THAT(network_.conntrack_requests, SizeIs(1));
}
