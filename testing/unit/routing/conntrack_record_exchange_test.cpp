// The exchange with the connection tracker: its socket, every way that it can fail, and whose
// answer counts.
#include <sched.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>

#include "support/conntrack_fixture.h"

using testing::ElementsAre;
using testing::IsEmpty;
using testing::SizeIs;

namespace {

constexpr uint32_t kPort = 4711;  // of the fake network's socket

class ConntrackRecordExchangeTest : public ConntrackFixture {};

struct FailingCall {
  const char* call;
  int error;
  bool ipv6;
  bool sent;  // the request
  const char* message;
};

class ConntrackRecordExchangeFailureTest : public ConntrackRecordExchangeTest,
                                           public testing::WithParamInterface<FailingCall> {};

}  // namespace

// --- the socket ---

TEST_F(ConntrackRecordExchangeTest, SocketIsOpenedOnceAndKept) {
  int bus = -1;
  int flags = 0;
  CallHook open(wrapped::mnl_socket_open2, [&](int of_bus, int with_flags) {
    bus = of_bus;
    flags = with_flags;
    static char socket[64];
    return reinterpret_cast<mnl_socket*>(socket);
  });
  unsigned groups = 1;
  pid_t port = -1;
  CallHook bind(wrapped::mnl_socket_bind, [&](mnl_socket*, unsigned to_groups, pid_t pid) {
    groups = to_groups;
    port = pid;
    return 0;
  });
  EXPECT_EQ(create(), 0);
  EXPECT_EQ(create(), 0);
  EXPECT_EQ(create6(), 0);
  EXPECT_EQ(call_count("mnl_socket_open2"), 1);
  EXPECT_EQ(call_count("mnl_socket_bind"), 1);
  EXPECT_EQ(call_count("mnl_socket_close"), 0);
  EXPECT_EQ(bus, NETLINK_NETFILTER);
  EXPECT_EQ(flags, SOCK_CLOEXEC);
  EXPECT_EQ(groups, 0u);
  EXPECT_EQ(port, MNL_SOCKET_AUTOPID);
}

TEST_F(ConntrackRecordExchangeTest, EachVrfHasItsOwn) {
  EXPECT_EQ(create(), 0);
  LBWorkerContext other;
  other.vrf = unused_name("vrf");
  EXPECT_EQ(create_conntrack_record("192.0.2.1", "198.51.100.7", other), 0);
  EXPECT_EQ(call_count("mnl_socket_open2"), 2);
  Fault fault("nfct_new", ENOMEM);
  EXPECT_EQ(create_conntrack_record("192.0.2.1", "198.51.100.7", other), -1);
}

TEST_F(ConntrackRecordExchangeTest, SocketThatCannotBeOpened) {
  {
    Fault fault("mnl_socket_open2", EPROTONOSUPPORT);
    EXPECT_EQ(create(), -1);
    EXPECT_EQ(create(), -1);
  }
  const auto message =
      LoggedError("<create_conntrack_record> mnl_socket_open: Protocol not supported");
  EXPECT_THAT(log_records(), ElementsAre(message, message));
  EXPECT_THAT(network_.conntrack_requests, IsEmpty());
  EXPECT_EQ(call_count("mnl_socket_close"), 0);
  EXPECT_EQ(create(), 0);
}

// --- what fails closes the socket; the next call opens another ---

TEST_P(ConntrackRecordExchangeFailureTest, IsLoggedAndOvercome) {
  const FailingCall& failing = GetParam();
  const auto create_one = [&] { return failing.ipv6 ? create6() : create(); };
  {
    Fault fault(failing.call, failing.error);
    EXPECT_EQ(create_one(), -1);
  }
  EXPECT_THAT(log_records(), ElementsAre(LoggedError("<create_conntrack_record> " +
                                                     std::string(failing.message))));
  EXPECT_THAT(network_.conntrack_requests, SizeIs(failing.sent ? 1 : 0));
  EXPECT_EQ(call_count("mnl_socket_recvfrom"), failing.sent ? 1 : 0);
  EXPECT_EQ(call_count("mnl_socket_close"), 1);
  EXPECT_EQ(create_one(), 0);
  EXPECT_EQ(call_count("mnl_socket_open2"), 2);
}

INSTANTIATE_TEST_SUITE_P(
    Calls, ConntrackRecordExchangeFailureTest,
    testing::Values(FailingCall{"mnl_socket_bind", EADDRINUSE, false, false,
                                "mnl_socket_bind: Address already in use"},
                    FailingCall{"nfct_new", ENOMEM, false, false,
                                "mnl_nlmsg_put_extra_header: Cannot allocate memory"},
                    FailingCall{"mnl_socket_sendto", ENOBUFS, false, false,
                                "mnl_socket_sendto: No buffer space available"},
                    FailingCall{"mnl_socket_recvfrom", ENOBUFS, false, true,
                                "mnl_socket_recvfrom for ip version 4: No buffer space available"},
                    FailingCall{
                        "mnl_socket_recvfrom", ENOBUFS, true, true,
                        "mnl_socket_recvfrom for ip version 6: No buffer space available"}));

TEST_F(ConntrackRecordExchangeTest, RefusalOfTheKernel) {
  network_.conntrack_answer = EEXIST;
  EXPECT_EQ(create(), -1);
  EXPECT_EQ(create6(), -1);
  EXPECT_THAT(
      log_records(),
      ElementsAre(LoggedError("<create_conntrack_record> mnl_socket_recvfrom for ip version "
                              "4: File exists"),
                  LoggedError("<create_conntrack_record> mnl_socket_recvfrom for ip version "
                              "6: File exists")));
  EXPECT_EQ(call_count("mnl_socket_close"), 2);
  network_.conntrack_answer = 0;
  EXPECT_EQ(create6(), 0);
  EXPECT_EQ(call_count("mnl_socket_open2"), 3);
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

TEST_F(ConntrackRecordExchangeTest, FailuresAreSilentWithoutTheFlag) {
  set_log_flag(1, false);
  network_.conntrack_answer = EEXIST;
  EXPECT_EQ(create(), -1);
  EXPECT_THAT(log_records(), IsEmpty());
}

// --- the answer ---

TEST_F(ConntrackRecordExchangeTest, AnswerToAnotherSocket) {
  uint32_t port = kPort + 1;
  CallHook hook(wrapped::mnl_socket_recvfrom, [&](const mnl_socket*, void* data, size_t) {
    return write_answer(data, NLMSG_ERROR, last_sequence(), port);
  });
  EXPECT_EQ(create(), -1);
  EXPECT_THAT(log_records(), ElementsAre(LoggedError("<create_conntrack_record> "
                                                     "mnl_socket_recvfrom for ip version 4: No "
                                                     "such process")));
  clear_log();
  port = kPort;
  EXPECT_EQ(create(), 0);
  EXPECT_THAT(log_records(), IsEmpty());
}

// The answer of an earlier request does not count for this one.
TEST_F(ConntrackRecordExchangeTest, AnswerToAnotherRequest) {
  CallHook hook(wrapped::mnl_socket_recvfrom, [](const mnl_socket*, void* data, size_t) {
    return write_answer(data, NLMSG_ERROR, 1, kPort);
  });
  EXPECT_EQ(create(), -1);
  EXPECT_THAT(log_records(), ElementsAre(LoggedError("<create_conntrack_record> "
                                                     "mnl_socket_recvfrom for ip version 4: "
                                                     "Protocol error")));
}

TEST_F(ConntrackRecordExchangeTest, AnswerHasAPageOrEightKilobytes) {
  size_t room = 0;
  CallHook hook(wrapped::mnl_socket_recvfrom, [&](const mnl_socket*, void* data, size_t size) {
    room = size;
    return write_answer(data, NLMSG_ERROR, last_sequence(), kPort);
  });
  EXPECT_EQ(create(), 0);
  EXPECT_EQ(room, static_cast<size_t>(std::min(sysconf(_SC_PAGESIZE), 8192L)));
}

TEST_F(ConntrackRecordExchangeTest, ReadsOnUntilTheAnswerEnds) {
  int reads = 0;
  CallHook hook(wrapped::mnl_socket_recvfrom, [&](const mnl_socket*, void* data, size_t size) {
    EXPECT_GE(size, 4096u);
    // Notices first, then the acknowledgement.
    return write_answer(data, ++reads == 3 ? NLMSG_ERROR : NLMSG_NOOP, last_sequence(), kPort);
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
