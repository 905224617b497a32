#include "tests/echo_probe.h"

#include <sys/socket.h>

#include <cerrno>
#include <ctime>

#include "packets/icmp_echo.h"
#include "packets/packet_reader.h"
#include "platform/clock.h"
#include "tests/echo_path.h"
#include "tests/io/packet_socket.h"
#include "tests/io/probes_in_flight.h"

namespace {

int error_of(ssize_t sent) { return sent < 0 ? errno : 0; }

template <class Request>
int send_request(int socket, const Request& request, const SocketAddress& destination) {
  return error_of(
      sendto(socket, &request, sizeof(request), MSG_DONTWAIT, &destination.any, destination.size));
}

// Unless nobody reads the replies for good.
void follow_device(const InterfaceSockets& sockets) {
  const int fd = sockets.recv_socket.get();
  if (fd < 0 || sockets.receiver_state == ReceiverState::kFailed) return;
  sockets.replies.follow(fd, sockets.family, sockets.ifname);
  if (sockets.receiver_state == ReceiverState::kFailed) sockets.replies.leave(fd, sockets.family);
}

}  // namespace

// Not of an interface that has bursts only, which no receiver reads.
void EchoProbe::init(LBInterface& interface) {
  LBTest::init(interface);
  follow_device(*sockets());
}

void EchoProbe::send(LBInterface& interface, const LBWorkerContext& worker) {
  const Destination destination = choose_destination(interface);
  const std::string& target = destination.target;
  if (target.empty()) return;
  ProbesInFlight& probes = probes_in_flight(family_);
  if (probes.find(interface.origin, target)) return;

  const int32_t key = probes.next_key();
  const auto sockets = this->sockets();
  follow_device(*sockets);
  if (!sockets->mutex.lock("send")) return;
  probes.insert(key, {interface.origin, kProbeWaiting, monotonic_now(), target});
  if (!sockets->mutex.unlock("send")) {
    probes.erase(key);
    return;
  }

  // Where this fails the probe stays in flight and fails by time-out.
  const int error = is_no_arp(interface) ? send_raw(interface, target, key, worker)
                                         : send_frame(interface, destination, key, worker);
  log_send_error(family_, error);
}

int EchoProbe::send_raw(const LBInterface& interface, const std::string& target, int32_t key,
                        const LBWorkerContext& worker) {
  const auto sockets = this->sockets();
  const int socket = sockets->send_socket.get();
  SocketAddress destination;
  const PathResult path =
      prepare_raw_path(family_, socket, interface.origin, target, worker, destination);
  log_path_failure(path, words_);
  if (!path.ready()) return path.error;
  const auto probe_key = static_cast<uint32_t>(key);
  if (!family_.ipv6) {
    const RawEchoRequest request = make_raw_echo(echo_identifier(), 1, probe_key);
    return send_request(socket, request, destination);
  }
  const timespec now = wall_now();
  const RawEchoRequest6 request =
      make_raw_echo6(echo_identifier(), static_cast<uint32_t>(now.tv_sec),
                     static_cast<uint32_t>(now.tv_nsec / 1000), probe_key);
  return send_request(socket, request, destination);
}

int EchoProbe::send_frame(const LBInterface& interface, const Destination& destination, int32_t key,
                          const LBWorkerContext& worker) {
  return family_.ipv6 ? send_frame_of<Ipv6>(interface, destination, key, worker)
                      : send_frame_of<Ipv4>(interface, destination, key, worker);
}

template <class AddressFamily>
int EchoProbe::send_frame_of(const LBInterface& interface, const Destination& destination,
                             int32_t key, const LBWorkerContext& worker) {
  FramePath<AddressFamily> path;
  const PathResult result = prepare_frame_path(interface, destination, worker, path);
  log_path_failure(result, words_);
  if (!result.ready()) return result.error;
  const auto frame =
      make_echo_frame(path.addresses, echo_identifier(), 0, static_cast<uint32_t>(key));
  return error_of(send_link_frame(sockets()->packet_socket.get(), path.ifindex,
                                  path.addresses.destination_mac, bytes_of(frame)));
}
