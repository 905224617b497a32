#include "tests/burst_probe.h"

#include <poll.h>
#include <sys/socket.h>

#include <algorithm>
#include <cerrno>
#include <memory>

#include "config/log.h"
#include "packets/icmp_echo.h"
#include "packets/packet_reader.h"
#include "platform/clock.h"
#include "platform/file_descriptor.h"
#include "tests/echo_path.h"
#include "tests/io/packet_socket.h"
#include "tests/io/probes_in_flight.h"
#include "tests/io/receive_queue.h"
#include "tests/path_messages.h"

namespace {

constexpr int kMostLate = 10000;

int64_t elapsed_nanoseconds(const timespec& from, const timespec& to) {
  return (static_cast<int64_t>(to.tv_sec) - from.tv_sec) * 1000000000 + (to.tv_nsec - from.tv_nsec);
}

}  // namespace

void LBTestPING::set_number(TestKeyword keyword, uint32_t value) {
  const auto number = static_cast<int32_t>(value);
  switch (keyword) {
    case TestKeyword::kPeriod:
      period_ = number;
      break;
    case TestKeyword::kTimeout:
      wait_.seconds = static_cast<int32_t>(value / 1000);
      wait_.nanoseconds = static_cast<int32_t>(value % 1000 * 1000000);
      break;
    case TestKeyword::kCount:
      count_ = number;
      break;
    case TestKeyword::kLoss:
      limits_.loss = number;
      break;
    case TestKeyword::kRtt:
      limits_.rtt = number;
      break;
    case TestKeyword::kJitter:
      limits_.jitter = number;
      break;
    case TestKeyword::kResponseTime:
      LBTest::set_number(keyword, value);
      break;
  }
}

void LBTestPING::send(LBInterface& interface, const LBWorkerContext& worker) {
  // Also between two bursts: the next hop that was must not count until the next one.
  if (interface.follows_nexthop()) choose_destination(interface);

  const timespec now = monotonic_now();
  if (is_within_period(whole_milliseconds(last_run_), whole_milliseconds(now), period_)) return;
  last_run_ = now;

  const Destination destination = choose_destination(interface);
  if (destination.target.empty()) return;
  const int32_t key = probes_in_flight(family_).next_key();
  const Ending ending = is_no_arp(interface)
                            ? run_raw_burst(interface, destination.target, key, worker)
                            : run_frame_burst(interface, destination, key, worker);
  settle(interface, ending.acceptable ? kProbeSuccess : kProbeFailure, destination.target);
  log_send_error(family_, ending.error);
}

// Nothing to collect: a burst is settled by the time that it was sent.
void LBTestPING::recv(LBInterface& /*interface*/, const LBWorkerContext& /*worker*/) {}

int64_t LBTestPING::longest_wait() const {
  return int64_t{period_} * 1000 + int64_t{count_} * wait_.limit();
}

void LBTestPING::add_measurement(TestReport& report) const {
  report.measurement = {measured_.jitter, measured_.loss, measured_.rtt,
                        limits_.jitter,   limits_.loss,   limits_.rtt};
}

LBTestPING::Ending LBTestPING::run_raw_burst(const LBInterface& interface,
                                             const std::string& target, int32_t key,
                                             const LBWorkerContext& worker) {
  const auto sockets = this->sockets();
  const int socket = sockets->send_socket.get();
  SocketAddress destination;
  const PathResult path =
      prepare_raw_path(family_, socket, interface.origin, target, worker, destination);
  log_path_failure(path, kBurstWords);
  if (!path.ready()) return {false, path.error};
  const auto send_request = [&](uint16_t sequence) {
    const auto request = make_raw_echo(echo_identifier(), sequence, static_cast<uint32_t>(key));
    return sendto(socket, &request, sizeof(request), MSG_DONTWAIT, &destination.any,
                  destination.size);
  };
  return run_burst(send_request, *sockets, destination, key);
}

LBTestPING::Ending LBTestPING::run_frame_burst(const LBInterface& interface,
                                               const Destination& destination, int32_t key,
                                               const LBWorkerContext& worker) {
  FramePath<Ipv4> path;
  const PathResult result = prepare_frame_path(interface, destination, worker, path);
  log_path_failure(result, kBurstWords);
  if (!result.ready()) return {false, result.error};
  SocketAddress replier;
  replier.ipv4 = sockaddr_in{};
  replier.ipv4.sin_family = AF_INET;
  replier.ipv4.sin_addr = path.addresses.destination;
  replier.size = sizeof(replier.ipv4);
  const auto sockets = this->sockets();
  const auto send_request = [&](uint16_t sequence) {
    const auto frame =
        make_echo_frame(path.addresses, echo_identifier(), sequence, static_cast<uint32_t>(key));
    return send_link_frame(sockets->packet_socket.get(), path.ifindex,
                           path.addresses.destination_mac, bytes_of(frame));
  };
  return run_burst(send_request, *sockets, replier, key);
}

template <class SendRequest>
LBTestPING::Ending LBTestPING::run_burst(SendRequest send_request, const InterfaceSockets& sockets,
                                         const SocketAddress& destination, int32_t key) {
  // A burst of no requests has measured nothing that could be called good.
  if (count_ < 1) return {};
  const ReplySource& source = sockets.replies;
  const FileDescriptor replies = source.open(family_, sockets.ifname);
  if (!replies.valid()) {
    const int error = errno;
    LB_ERROR("wan_lb: failed to acquired socket");
    return {false, error};
  }
  enlarge_receive_queue(replies.get());
  BurstTally tally;
  while (tally.sent() < count_) {
    const auto sequence = static_cast<uint16_t>(tally.sent());
    if (send_request(sequence) < 0) return {false, errno};
    tally.add_sent();
    const auto rtt = await_reply(source, replies.get(), destination, sequence, key);
    if (rtt) {
      tally.add_reply(*rtt);
    } else if (tally.sent() <= 1) {
      // A dead link costs one wait, not a whole burst of them.
      return {};
    } else {
      tally.add_lost(wait_.limit());
    }
  }
  const BurstMeasurement measured = tally.measure(count_);
  MutexLock lock(status_mutex_);
  measured_ = measured;
  return {is_acceptable(measured, limits_), 0};
}

std::optional<int64_t> LBTestPING::await_reply(const ReplySource& source, int socket,
                                               const SocketAddress& destination, uint16_t sequence,
                                               int32_t key) const {
  // select(2) refuses a microsecond figure of a whole second or more, and so does this daemon.
  if (!wait_.is_valid()) return std::nullopt;
  const timespec start = monotonic_now();
  const int64_t limit = wait_.microseconds() * 1000;
  const auto buffer = std::make_unique_for_overwrite<uint8_t[]>(kLargestReply);
  int64_t remaining = limit;
  // Like select(2), a wait that is over still takes what has come in by then, but no flood of it.
  for (int late = 0; late < kMostLate; late += remaining == 0 ? 1 : 0) {
    const timespec timeout{.tv_sec = remaining / 1000000000, .tv_nsec = remaining % 1000000000};
    pollfd waiting{.fd = socket, .events = POLLIN, .revents = 0};
    if (ppoll(&waiting, 1, &timeout, nullptr) < 1) return std::nullopt;
    remaining = std::max<int64_t>(0, limit - elapsed_nanoseconds(start, monotonic_now()));

    // A packet with a wrong checksum is waited for but not given: never block here.
    const ReceivedReply reply =
        source.receive(socket, family_, {buffer.get(), kLargestReply}, MSG_DONTWAIT,
                       /*asks_sender=*/true);
    if (reply.kind != ReceivedReply::Kind::kPacket || !is_same(reply.sender, destination)) continue;
    if (is_burst_reply(reply.packet, sequence, static_cast<uint32_t>(key))) {
      return wait_.limit() - remaining / 1000000;
    }
  }
  return std::nullopt;
}
