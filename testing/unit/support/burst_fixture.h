// An extended ping test against a far end that answers by a script, in virtual time.
#pragma once

#include <poll.h>

#include <deque>

#include "support/echo_fixture.h"
#include "tests/burst_probe.h"

class BurstFixture : public EchoFixture<Ipv4> {
 protected:
  using Milliseconds = std::chrono::milliseconds;

  // A packet on its way to the socket that the burst reads.
  struct Arrival {
    std::chrono::nanoseconds after;  // since the request that it follows
    Bytes packet;
    sockaddr_in sender;
  };

  BurstFixture() {
    network_.no_arp = true;
    test_.set_target(kTarget);
    test_.init(interface_);
    network_.on_frame = [this](const Bytes& request) { take_request(request); };
  }

  static constexpr const char* kTarget = EchoKit<Ipv4>::kTarget;

  // Answers every request after `delay`; the n-th of `lost` (from 0) not at all.
  void answer_all(Milliseconds delay, std::vector<size_t> lost = {}) {
    answer_ = [=, this](size_t index, const Bytes& request) {
      if (std::find(lost.begin(), lost.end(), index) == lost.end())
        arrive(delay, reply_to(request));
    };
  }

  void arrive(std::chrono::nanoseconds after, const Bytes& packet, const char* sender = kTarget) {
    sockaddr_in address{};
    address.sin_family = AF_INET;
    inet_pton(AF_INET, sender, &address.sin_addr);
    const timespec now = monotonic_now();
    arrivals_.push_back(
        {std::chrono::seconds(now.tv_sec) + std::chrono::nanoseconds(now.tv_nsec) + after, packet,
         address});
  }

  // What the raw socket delivers for a request: an IP header and the ICMP message as a reply.
  Bytes reply_to(const Bytes& request) const {
    Bytes packet(20);
    packet[0] = 0x45;
    const size_t message = request.size() == 46 ? 34 : 0;
    packet.insert(packet.end(), request.begin() + static_cast<long>(message), request.end());
    packet[20] = 0;
    return packet;
  }

  void send() {
    // The two calls of a wait, answered from `arrivals_`: the clock moves to the next arrival or to
    // the end of the wait.
    CallHook poll(wrapped::ppoll, [this](pollfd* fds, nfds_t, const timespec* timeout,
                                         const sigset_t*) { return wait(fds, *timeout); });
    CallHook receive(wrapped::recvfrom, [this](int fd, void* data, size_t size, int flags,
                                               sockaddr* address, socklen_t* address_size) {
      return receive_one(fd, data, size, flags, address, address_size);
    });
    test_.send(interface_, worker_);
  }

  TestReport::Measurement measured() const {
    const auto report = test_.report();
    EXPECT_TRUE(report.measurement.has_value());
    return report.measurement.value_or(TestReport::Measurement{});
  }

  void expect_measured(int32_t loss, int32_t rtt, int32_t jitter) const {
    EXPECT_EQ(measured().measured_loss, loss);
    EXPECT_EQ(measured().measured_rtt, rtt);
    EXPECT_EQ(measured().measured_jitter, jitter);
  }

  void expect_succeeded() const {
    EXPECT_EQ(test_.report().result, 1);
    EXPECT_THAT(state().success_counts, testing::ElementsAre(testing::Pair(kTarget, 1)));
    EXPECT_THAT(state().failure_counts, testing::ElementsAre(testing::Pair(kTarget, 0)));
  }

  void expect_failed() const {
    EXPECT_EQ(test_.report().result, 2);
    EXPECT_THAT(state().failure_counts, testing::ElementsAre(testing::Pair(kTarget, 1)));
    EXPECT_THAT(state().success_counts, testing::ElementsAre(testing::Pair(kTarget, 0)));
  }

  // The socket that the last burst read its replies from.
  FakeNetwork::Socket reply_socket() const {
    return network_.last_socket(AF_INET, SOCK_RAW, IPPROTO_ICMP);
  }

  int64_t elapsed_ms(const timespec& since) const {
    return elapsed_milliseconds(since, monotonic_now());
  }

  LBTestPING test_;
  std::function<void(size_t index, const Bytes& request)> answer_;
  std::deque<Arrival> arrivals_;  // `after` holds the monotonic time of arrival
  std::vector<timespec> waits_;   // the limits that were waited for
  int last_wait_fd_ = -1;

 private:
  void take_request(const Bytes& request) {
    const size_t index = requests_++;
    if (answer_) answer_(index, request);
  }

  int wait(pollfd* fds, const timespec& timeout) {
    using std::chrono::nanoseconds;
    waits_.push_back(timeout);
    last_wait_fd_ = fds->fd;
    EXPECT_EQ(fds->events, POLLIN);
    const timespec time = monotonic_now();
    const nanoseconds now = std::chrono::seconds(time.tv_sec) + nanoseconds(time.tv_nsec);
    const nanoseconds limit = std::chrono::seconds(timeout.tv_sec) + nanoseconds(timeout.tv_nsec);
    if (arrivals_.empty() || arrivals_.front().after > now + limit) {
      virtual_clock::advance(limit);
      return 0;
    }
    if (arrivals_.front().after > now) virtual_clock::advance(arrivals_.front().after - now);
    fds->revents = POLLIN;
    return 1;
  }

  ssize_t receive_one(int fd, void* data, size_t size, int flags, sockaddr* address,
                      socklen_t* address_size) {
    EXPECT_EQ(fd, last_wait_fd_);
    EXPECT_EQ(size, 65535u);
    EXPECT_EQ(flags, MSG_DONTWAIT);
    if (arrivals_.empty()) {
      errno = EAGAIN;
      return -1;
    }
    const Arrival arrival = arrivals_.front();
    arrivals_.pop_front();
    if (arrival.packet.empty()) {  // its checksum was wrong
      errno = EAGAIN;
      return -1;
    }
    std::copy(arrival.packet.begin(), arrival.packet.end(), static_cast<uint8_t*>(data));
    std::memcpy(address, &arrival.sender, sizeof(arrival.sender));
    *address_size = sizeof(arrival.sender);
    return static_cast<ssize_t>(arrival.packet.size());
  }

  size_t requests_ = 0;
};
