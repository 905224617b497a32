// The exchange with the connection tracker: every way that it can fail, room for its answer, and
// whose answer counts.
#include <linux/netlink.h>
#include <unistd.h>

#include <algorithm>

#include "support/conntrack_fixture.h"

using testing::ElementsAre;
using testing::IsEmpty;
using testing::SizeIs;

namespace {

class ConntrackRecordExchangeTest : public ConntrackFixture {};

}  // namespace

TEST_F(ConntrackRecordExchangeTest, AnswerToAnotherSocket) {
  uint32_t port = 4712;  // the socket's is 4711
  CallHook hook(wrapped::mnl_socket_recvfrom,
                [&](const mnl_socket*, void* data, size_t) { return answer(data, 0, port); });
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
    return answer(data, 0);
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

// What fails afterwards closes the socket; the next call opens another.

TEST_F(ConntrackRecordExchangeTest, RecordThatCannotBeMade) {
  {
    Fault fault("nfct_new", ENOMEM);
    EXPECT_EQ(create(), -1);
  }
  EXPECT_THAT(log_records(), ElementsAre(LoggedError("<create_conntrack_record> "
                                                     "mnl_nlmsg_put_extra_header: Cannot allocate "
                                                     "memory")));
  EXPECT_THAT(network_.conntrack_requests, IsEmpty());
  EXPECT_EQ(call_count("mnl_socket_close"), 1);
  EXPECT_EQ(create(), 0);
  EXPECT_EQ(call_count("mnl_socket_open2"), 2);
}

TEST_F(ConntrackRecordExchangeTest, RequestThatCannotBeSent) {
  {
    Fault fault("mnl_socket_sendto", ENOBUFS);
    EXPECT_EQ(create(), -1);
  }
  EXPECT_THAT(log_records(), ElementsAre(LoggedError("<create_conntrack_record> mnl_socket_sendto: "
                                                     "No buffer space available")));
  EXPECT_EQ(call_count("mnl_socket_recvfrom"), 0);
  EXPECT_EQ(call_count("mnl_socket_close"), 1);
  EXPECT_EQ(create(), 0);
  EXPECT_EQ(call_count("mnl_socket_open2"), 2);
}

TEST_F(ConntrackRecordExchangeTest, AnswerThatCannotBeRead) {
  {
    Fault fault("mnl_socket_recvfrom", ENOBUFS);
    EXPECT_EQ(create(), -1);
    EXPECT_EQ(create6(), -1);
  }
  EXPECT_THAT(
      log_records(),
      ElementsAre(LoggedError("<create_conntrack_record> mnl_socket_recvfrom for ip version "
                              "4: No buffer space available"),
                  LoggedError("<create_conntrack_record> mnl_socket_recvfrom for ip version "
                              "6: No buffer space available")));
  EXPECT_EQ(call_count("mnl_socket_close"), 2);
}

TEST_F(ConntrackRecordExchangeTest, RefusalOfTheKernel) {
  network_.conntrack_answer = EPERM;
  EXPECT_EQ(create(), -1);
  EXPECT_EQ(create6(), -1);
  EXPECT_THAT(
      log_records(),
      ElementsAre(LoggedError("<create_conntrack_record> mnl_socket_recvfrom for ip version "
                              "4: Operation not permitted"),
                  LoggedError("<create_conntrack_record> mnl_socket_recvfrom for ip version "
                              "6: Operation not permitted")));
  EXPECT_THAT(network_.conntrack_requests, SizeIs(2));  // nothing to renew
  EXPECT_EQ(call_count("mnl_socket_close"), 2);
  network_.conntrack_answer = 0;
  EXPECT_EQ(create6(), 0);
  EXPECT_EQ(call_count("mnl_socket_open2"), 3);
}

// The answer of an earlier request does not count for this one.
TEST_F(ConntrackRecordExchangeTest, AnswerToAnotherRequest) {
  CallHook hook(wrapped::mnl_socket_recvfrom, [](const mnl_socket*, void* data, size_t) {
    nlmsghdr header{NLMSG_LENGTH(sizeof(nlmsgerr)), NLMSG_ERROR, 0, 1, 4711};
    std::memset(data, 0, header.nlmsg_len);
    std::memcpy(data, &header, sizeof(header));
    return static_cast<ssize_t>(header.nlmsg_len);
  });
  EXPECT_EQ(create(), -1);
  EXPECT_THAT(log_records(), ElementsAre(LoggedError("<create_conntrack_record> "
                                                     "mnl_socket_recvfrom for ip version 4: "
                                                     "Protocol error")));
}

TEST_F(ConntrackRecordExchangeTest, ReadsOnUntilTheAnswerEnds) {
  int reads = 0;
  CallHook hook(wrapped::mnl_socket_recvfrom, [&](const mnl_socket*, void* data, size_t size) {
    EXPECT_GE(size, 4096u);
    const bool last = ++reads == 3;
    // Notices first, then the acknowledgement.
    const nlmsghdr sent = header_of(network_.conntrack_requests.back());
    nlmsghdr header{last ? static_cast<uint32_t>(NLMSG_LENGTH(sizeof(nlmsgerr))) : NLMSG_HDRLEN,
                    static_cast<uint16_t>(last ? NLMSG_ERROR : NLMSG_NOOP), 0, sent.nlmsg_seq,
                    4711};
    std::memset(data, 0, header.nlmsg_len);
    std::memcpy(data, &header, sizeof(header));
    return static_cast<ssize_t>(header.nlmsg_len);
  });
  EXPECT_EQ(create(), 0);
  EXPECT_EQ(reads, 3);
}

TEST_F(ConntrackRecordExchangeTest, EndOfTheSocketIsNoError) {
  CallHook hook(wrapped::mnl_socket_recvfrom,
                [](const mnl_socket*, void*, size_t) { return ssize_t{0}; });
  EXPECT_EQ(create(), 0);
  EXPECT_THAT(log_records(), IsEmpty());
}

TEST_F(ConntrackRecordExchangeTest, UnparsableIpv6AddressSendsNothing) {
  context_.ipv6 = 1;
  const auto message = LoggedError("inet_pton() failed.\nError message: Success");
  EXPECT_EQ(create_conntrack_record("nonsense", "2001:db8:7::7", context_), -1);
  EXPECT_THAT(log_records(), ElementsAre(message));
  EXPECT_EQ(create_conntrack_record("2001:db8::1", "probe.example", context_), -1);
  EXPECT_EQ(create_conntrack_record("192.0.2.1", "198.51.100.7", context_), -1);
  EXPECT_THAT(log_records(), ElementsAre(message, message, message));
  EXPECT_THAT(network_.conntrack_requests, IsEmpty());
  EXPECT_EQ(call_count("mnl_socket_close"), 3);
  EXPECT_EQ(create6(), 0);
}

TEST_F(ConntrackRecordExchangeTest, SourceIsParsedFirst) {
  context_.ipv6 = 1;
  EXPECT_EQ(create_conntrack_record("nonsense", "more nonsense", context_), -1);
  EXPECT_THAT(log_records(), SizeIs(1));
}

TEST_F(ConntrackRecordExchangeTest, FailuresAreSilentWithoutTheFlag) {
  set_log_flag(1, false);
  network_.conntrack_answer = EEXIST;
  EXPECT_EQ(create(), -1);
  EXPECT_THAT(log_records(), IsEmpty());
}

// One exchange at a time: an answer is read by the thread that asked.
TEST_F(ConntrackRecordExchangeTest, ExchangesOfTwoThreadsDoNotMix) {
  std::atomic<int> under_way{0};
  std::atomic<int> most{0};
  CallHook send(wrapped::mnl_socket_sendto, [&](const mnl_socket*, const void* data, size_t size) {
    most = std::max(most.load(), ++under_way);
    network_.conntrack_requests.push_back(
        Bytes(static_cast<const uint8_t*>(data), static_cast<const uint8_t*>(data) + size));
    sched_yield();
    return static_cast<ssize_t>(size);
  });
  CallHook receive(wrapped::mnl_socket_recvfrom, [&](const mnl_socket*, void*, size_t) {
    --under_way;
    return ssize_t{0};
  });
  const auto work = [](void* context) -> void* {
    for (int i = 0; i < 200; ++i) {
      create_conntrack_record("192.0.2.1", "198.51.100.7", *static_cast<LBWorkerContext*>(context));
    }
    return nullptr;
  };
  LBWorkerContext other = context_;
  pthread_t threads[2];
  ASSERT_EQ(pthread_create(&threads[0], nullptr, work, &context_), 0);
  ASSERT_EQ(pthread_create(&threads[1], nullptr, work, &other), 0);
  for (const pthread_t thread : threads) pthread_join(thread, nullptr);
  EXPECT_EQ(most, 1);
}
