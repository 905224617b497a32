// The socket that a burst reads its replies from: its own, not that of the interface's receiver.
#include <vector>

#include "support/burst_fixture.h"

using testing::Contains;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::Not;
using namespace std::chrono_literals;

namespace {

class BurstProbeSocketTest : public BurstFixture {
 protected:
  BurstProbeSocketTest() {
    set_log_flag(3, true);
    answer_all(20ms);
  }

  // Lets a burst run that gets no socket of its own.
  void send_without_socket(int error) {
    CallHook hook(wrapped::socket, [=, this](int domain, int type, int protocol) {
      if (protocol != IPPROTO_ICMP) return network_.open_socket(domain, type, protocol);
      errno = error;
      return -1;
    });
    send();
  }
};

}  // namespace

TEST_F(BurstProbeSocketTest, IsItsOwn) {
  const int of_the_interface = sockets()->recv_socket.get();
  int waited_on = -1;
  network_.on_frame = [&, next = network_.on_frame](const Bytes& request) {
    waited_on = reply_socket().fd;  // open before the first request goes out
    next(request);
  };
  send();
  expect_succeeded();
  EXPECT_NE(last_wait_fd_, of_the_interface);
  EXPECT_EQ(last_wait_fd_, waited_on);
  EXPECT_TRUE(reply_socket().close_on_exec);
}

TEST_F(BurstProbeSocketTest, IsClosedWhenTheBurstIsOver) {
  send();
  const FakeNetwork::Socket first = reply_socket();
  EXPECT_TRUE(FakeNetwork::is_closed(first));
  virtual_clock::advance(240s);
  send();
  EXPECT_NE(reply_socket().peer, first.peer) << "each burst opens another";
  EXPECT_TRUE(FakeNetwork::is_closed(reply_socket()));
}

TEST_F(BurstProbeSocketTest, IsClosedWhenTheBurstFails) {
  Fault fault("sendto", ENOBUFS, 4, 1);
  send();
  expect_failed();
  EXPECT_EQ(reply_socket().fd, last_wait_fd_);
  EXPECT_TRUE(FakeNetwork::is_closed(reply_socket()));
}

// What the receiver of the interface's other tests is to read stays where it is.
TEST_F(BurstProbeSocketTest, QueueOfTheInterfaceIsLeftAlone) {
  const auto socket = network_.socket_of(sockets()->recv_socket.get());
  FakeNetwork::deliver(socket, EchoKit<Ipv4>::reply(7));
  send();
  expect_succeeded();
  char byte;
  EXPECT_EQ(wrapped::recv.real(socket.fd, &byte, 1, MSG_DONTWAIT), 1);
  EXPECT_EQ(call_count("recv"), 0);
}

// What a hostile neighbour sends must not push replies out.
TEST_F(BurstProbeSocketTest, HasTheLargeQueueAndTheFilter) {
  int fd = -1;
  std::vector<int> options;  // that are set when the first request goes out
  network_.on_frame = [&, next = network_.on_frame](const Bytes& request) {
    if (fd == -1) {
      fd = reply_socket().fd;
      options = network_.option_names(fd);
    }
    next(request);
  };
  send();
  EXPECT_EQ(last_wait_fd_, fd);
  EXPECT_THAT(options, Contains(SO_RCVBUFFORCE));
  EXPECT_THAT(options, Contains(SO_ATTACH_FILTER));
  EXPECT_THAT(network_.option_names(sockets()->recv_socket.get()), Not(Contains(SO_RCVBUFFORCE)));
}

TEST_F(BurstProbeSocketTest, BurstWithoutOneFails) {
  for (const int error : {EMFILE, EPERM}) {
    clear_log();
    send_without_socket(error);
    EXPECT_EQ(test_.report().result, kResultFailure);
    EXPECT_THAT(network_.sent, IsEmpty());
    EXPECT_THAT(waits_, IsEmpty());
    EXPECT_THAT(log_records(), ElementsAre(LoggedError("wan_lb: failed to acquired socket"),
                                           LoggedDebug("wan_lb: error on sending icmp packet: " +
                                                       std::to_string(error))));
    virtual_clock::advance(240s);
  }
  send();
  EXPECT_EQ(test_.report().result, kResultSuccess) << "the next burst tries again";
}

// The log's own calls do not change what failed.
TEST_F(BurstProbeSocketTest, FailureIsToldWithItsOwnErrno) {
  CallHook hook(wrapped::vsnprintf,
                [](char* text, size_t size, const char* format, va_list arguments) {
                  const int length = wrapped::vsnprintf.real(text, size, format, arguments);
                  errno = EINVAL;
                  return length;
                });
  send_without_socket(EMFILE);
  EXPECT_THAT(log_records(), Contains(LoggedDebug("wan_lb: error on sending icmp packet: 24")));
}

TEST_F(BurstProbeSocketTest, BurstOfNoRequestsOpensNone) {
  test_.set_number(TestKeyword::kCount, 0);
  const int before = network_.count(AF_INET, IPPROTO_ICMP);
  send();
  EXPECT_EQ(test_.report().result, kResultFailure);
  EXPECT_EQ(network_.count(AF_INET, IPPROTO_ICMP), before);
}
