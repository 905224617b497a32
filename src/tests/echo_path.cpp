#include "tests/echo_path.h"

#include <net/if.h>
#include <netdb.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <vector>

#include "config/parse_address.h"
#include "packets/error_text.h"
#include "routing/conntrack_record.h"
#include "routing/interface_health.h"
#include "tests/echo_words.h"
#include "tests/link/arp_prober.h"
#include "tests/link/link_info.h"
#include "tests/link/neighbor_prober.h"

namespace {

constexpr size_t kLargestResolverBuffer = 1 << 20;

// The source of an IPv4 frame must be an address of the host, else replies could not come back. An
// empty one becomes the interface's own.
template <class Words>
int settle_ipv4_source(const std::string& ifname, std::string& source) {
  if (source.empty()) {
    const auto own = own_ipv4_address(ifname);
    if (!own.answered()) return own.error;
    source = address_to_text(AF_INET, &own.value);
  }
  if (address_on_interface(ifname, source)) return 0;
  Words::address_absent(source.c_str());
  return EADDRNOTAVAIL;
}

// What the kernel and the log are asked for, family by family.
template <class Family>
struct PathTraits;

template <>
struct PathTraits<Ipv4> {
  static constexpr const char* kPacketName = "icmp";

  static LBArp& prober(const LBWorkerContext& worker) { return *worker.arp; }

  template <class Words>
  static int settle_source(const std::string& ifname, std::string& source) {
    return settle_ipv4_source<Words>(ifname, source);
  }

  static int fill(const std::string& target, const in_addr& /*resolved*/,
                  sockaddr_in& destination) {
    destination.sin_family = AF_INET;
    if (inet_aton(target.c_str(), &destination.sin_addr) != 0) return 0;
    // inet_aton leaves errno alone; this is what its failure means.
    LB_ERROR("inet_aton() failed: %s", error_text(EINVAL).c_str());
    return EINVAL;
  }
};

template <>
struct PathTraits<Ipv6> {
  static constexpr const char* kPacketName = "icmp6";

  static LBNeighbor& prober(const LBWorkerContext& worker) { return *worker.neighbor; }

  // Chosen by the test already.
  template <class Words>
  static int settle_source(const std::string& /*ifname*/, std::string& /*source*/) {
    return 0;
  }

  static int fill(const std::string& /*target*/, const in6_addr& resolved,
                  sockaddr_in6& destination) {
    destination.sin6_family = AF_INET6;
    destination.sin6_addr = resolved;
    return 0;
  }
};

}  // namespace

uint16_t echo_identifier() { return static_cast<uint16_t>(getpid() & 0xffff); }

template <class Family>
std::optional<typename Family::Address> resolve_host(const std::string& host) {
  hostent entry{};
  hostent* found = nullptr;
  int resolver_error = 0;
  std::vector<char> buffer(1024);
  while (gethostbyname2_r(host.c_str(), Family::kFamily, &entry, buffer.data(), buffer.size(),
                          &found, &resolver_error) == ERANGE &&
         buffer.size() < kLargestResolverBuffer) {
    buffer.resize(buffer.size() * 2);
  }
  typename Family::Address address;
  if (found == nullptr || found->h_addr_list[0] == nullptr ||
      found->h_length != static_cast<int>(sizeof(address))) {
    return std::nullopt;
  }
  std::memcpy(&address, found->h_addr_list[0], sizeof(address));
  return address;
}

template <class Family, class Words>
int prepare_raw_path(int socket, const std::string& ifname, const std::string& target,
                     const LBWorkerContext& worker,
                     typename SocketAddress<Family>::Type& destination) {
  if (ifname.empty() || target.empty() || (worker.ipv6 != 0) != Family::kIpv6) return EINVAL;
  const auto resolved = resolve_host<Family>(target);
  if (!resolved) {
    Words::unresolved(target.c_str());
    return EHOSTUNREACH;
  }
  if (setsockopt(socket, SOL_SOCKET, SO_BINDTODEVICE, ifname.c_str(),
                 static_cast<socklen_t>(ifname.size() + 1)) != 0) {
    const int error = errno;
    Words::not_bound(device_name(ifname).c_str());
    return error;
  }
  destination = {};
  return PathTraits<Family>::fill(target, *resolved, destination);
}

template <class Family, class Words>
int prepare_frame_path(const LBInterface& interface, const std::string& chosen_source,
                       const std::string& target, const std::string& gateway,
                       const LBWorkerContext& worker, FramePath<Family>& path) {
  if ((worker.ipv6 != 0) != Family::kIpv6) return EINVAL;
  const std::string& ifname = interface.origin;

  const auto own_mac = hardware_address(LinkSocket::kPacket, ifname);
  if (own_mac.step == LinkStep::kSocketFailed) {
    LB_ERROR("socket() failed to get socket descriptor for using ioctl() %s",
             error_text(own_mac.error).c_str());
    return own_mac.error;
  }
  if (!own_mac.answered()) {
    // An interface that is not there is no error: tunnels and modems come and go.
    if (own_mac.error != ENODEV) {
      Words::no_hardware_address(error_text(own_mac.error).c_str());
    }
    return own_mac.error;
  }
  path.addresses.source_mac = own_mac.value;

  path.ifindex = static_cast<int>(if_nametoindex(ifname.c_str()));
  if (path.ifindex == 0) {
    const int error = errno;
    LB_ERROR("if_nametoindex() failed to obtain interface index %s", error_text(error).c_str());
    return error;
  }

  std::string source = chosen_source;
  const int source_error = PathTraits<Family>::template settle_source<Words>(ifname, source);
  if (source_error != 0) return source_error;

  const auto gateway_mac =
      resolve_link_address(PathTraits<Family>::prober(worker), gateway, source, ifname);
  if (!gateway_mac) return EHOSTUNREACH;
  path.addresses.destination_mac = *gateway_mac;

  if (!parse_address(Family::kFamily, source, &path.addresses.source) ||
      !parse_address(Family::kFamily, target, &path.addresses.destination)) {
    return EINVAL;
  }

  // The kernel never sees the request, so its reply would belong to no connection. Without the
  // record the probe still goes out: most firewalls let it through.
  create_conntrack_record(source, target, worker);
  return 0;
}

bool is_no_arp(LBInterface& interface) {
  {
    MutexLock lock(interface.mutex);
    if (interface.state.no_arp) return *interface.state.no_arp;
  }
  const auto flag = no_arp_flag(interface.origin);
  if (!flag) return false;
  MutexLock lock(interface.mutex);
  interface.state.no_arp = flag;
  return *flag;
}

template <class Family>
void log_send_error(int error) {
  if (error == ENETUNREACH) return;
  LB_DEBUG("wan_lb: error on sending %s packet: %d", PathTraits<Family>::kPacketName, error);
}

template void log_send_error<Ipv4>(int error);
template void log_send_error<Ipv6>(int error);
template std::optional<in_addr> resolve_host<Ipv4>(const std::string&);
template std::optional<in6_addr> resolve_host<Ipv6>(const std::string&);
template int prepare_raw_path<Ipv4, EchoWords>(int, const std::string&, const std::string&,
                                               const LBWorkerContext&, sockaddr_in&);
template int prepare_raw_path<Ipv4, BurstWords>(int, const std::string&, const std::string&,
                                                const LBWorkerContext&, sockaddr_in&);
template int prepare_raw_path<Ipv6, EchoWords6>(int, const std::string&, const std::string&,
                                                const LBWorkerContext&, sockaddr_in6&);
template int prepare_frame_path<Ipv4, EchoWords>(const LBInterface&, const std::string&,
                                                 const std::string&, const std::string&,
                                                 const LBWorkerContext&, FramePath<Ipv4>&);
template int prepare_frame_path<Ipv4, BurstWords>(const LBInterface&, const std::string&,
                                                  const std::string&, const std::string&,
                                                  const LBWorkerContext&, FramePath<Ipv4>&);
template int prepare_frame_path<Ipv6, EchoWords6>(const LBInterface&, const std::string&,
                                                  const std::string&, const std::string&,
                                                  const LBWorkerContext&, FramePath<Ipv6>&);
