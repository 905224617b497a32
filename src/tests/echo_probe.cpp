#include "tests/echo_probe.h"

#include <sys/socket.h>

#include <cerrno>

#include "packets/icmp_echo.h"
#include "packets/packet_reader.h"
#include "platform/clock.h"
#include "tests/echo_path.h"
#include "tests/echo_words.h"
#include "tests/io/packet_socket.h"
#include "tests/io/probes_in_flight.h"
#include "tests/link/source_address.h"

namespace {

template <class Family>
struct EchoTraits;

template <>
struct EchoTraits<Ipv4> {
  using Words = EchoWords;

  static RawEchoRequest raw_request(int32_t key) {
    return make_raw_echo(echo_identifier(), 1, static_cast<uint32_t>(key));
  }
  // Empty: the interface's own address.
  static std::string source_of(const LBInterface& interface) { return interface.source_address; }
};

template <>
struct EchoTraits<Ipv6> {
  using Words = EchoWords6;

  static RawEchoRequest6 raw_request(int32_t key) {
    const timespec now = wall_now();
    return make_raw_echo6(echo_identifier(), static_cast<uint32_t>(now.tv_sec),
                          static_cast<uint32_t>(now.tv_nsec / 1000), static_cast<uint32_t>(key));
  }
  static std::string source_of(const LBInterface& interface) {
    const std::string& configured = interface.source_address;
    if (!configured.empty() && configured != "::") return configured;
    return link_local_source(interface.origin);
  }
};

int error_of(ssize_t sent) { return sent < 0 ? errno : 0; }

}  // namespace

template <class Family>
void EchoTest<Family>::send(LBInterface& interface, const LBWorkerContext& worker) {
  const Destination destination = this->choose_destination(interface);
  const std::string& target = destination.target;
  if (target.empty()) return;
  ProbesInFlight& probes = probes_in_flight<Family>();
  if (probes.find(interface.origin, target)) return;

  const int32_t key = probes.next_key();
  const auto sockets = this->sockets();
  if (!sockets->mutex.template lock<Family>("send")) return;
  probes.insert(key, {interface.origin, kProbeWaiting, monotonic_now(), target});
  if (!sockets->mutex.template unlock<Family>("send")) {
    probes.erase(key);
    return;
  }

  const int error = is_no_arp(interface) ? send_raw(interface, target, key, worker)
                                         : send_frame(interface, destination, key, worker);
  // The probe stays in flight and fails by time-out.
  if (error != 0) log_send_error<Family>(error);
}

template <class Family>
int EchoTest<Family>::send_raw(const LBInterface& interface, const std::string& target, int32_t key,
                               const LBWorkerContext& worker) {
  using Traits = EchoTraits<Family>;
  const auto sockets = this->sockets();
  const int socket = sockets->send_socket.get();
  typename SocketAddress<Family>::Type destination;
  const int error = prepare_raw_path<Family, typename Traits::Words>(socket, interface.origin,
                                                                     target, worker, destination);
  if (error != 0) return error;
  const auto request = Traits::raw_request(key);
  probes_in_flight<Family>().mark_sent(key, monotonic_now());
  return error_of(sendto(socket, &request, sizeof(request), 0,
                         reinterpret_cast<const sockaddr*>(&destination), sizeof(destination)));
}

template <class Family>
int EchoTest<Family>::send_frame(const LBInterface& interface, const Destination& destination,
                                 int32_t key, const LBWorkerContext& worker) {
  using Traits = EchoTraits<Family>;
  FramePath<Family> path;
  const int error = prepare_frame_path<Family, typename Traits::Words>(
      interface, Traits::source_of(interface), destination.target, destination.gateway, worker,
      path);
  if (error != 0) return error;
  const auto frame =
      make_echo_frame(path.addresses, echo_identifier(), 0, static_cast<uint32_t>(key));
  probes_in_flight<Family>().mark_sent(key, monotonic_now());
  return error_of(::send_frame(this->sockets()->packet_socket.get(), path.ifindex,
                               path.addresses.destination_mac, bytes_of(frame)));
}

template class EchoTest<Ipv4>;
template class EchoTest<Ipv6>;
