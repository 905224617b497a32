#include "tests/echo_path.h"

#include <arpa/inet.h>
#include <netdb.h>
#include <sys/socket.h>

#include <cerrno>
#include <cstring>
#include <vector>

#include "config/parse_address.h"
#include "platform/mutex.h"
#include "routing/conntrack_record.h"
#include "tests/link/arp_prober.h"
#include "tests/link/link_info.h"
#include "tests/link/neighbor_prober.h"
#include "tests/link/source_address.h"

namespace {

constexpr size_t kLargestResolverBuffer = 1 << 20;

PathResult failed(PathStep step, int error, const std::string& subject = {}) {
  return {step, error, subject};
}

size_t address_size(const Family& family) {
  return family.ipv6 ? sizeof(in6_addr) : sizeof(in_addr);
}

LinkProber& prober_of(const LBWorkerContext& worker) {
  return worker.ipv6 ? static_cast<LinkProber&>(*worker.neighbor) : *worker.arp;
}

// A link-level path as far as it is the same for both families.
struct LinkPath {
  int ifindex = 0;
  std::string source;
  MacAddress source_mac{};
  MacAddress gateway_mac{};
};

PathResult prepare_link(const LBInterface& interface, const Destination& destination,
                        const LBWorkerContext& worker, LinkPath& path) {
  const Family& family = worker.family();
  const std::string& ifname = interface.origin;
  LinkProber& prober = prober_of(worker);
  LinkInfo& info = prober.link();
  path.source = wanted_source(info.addresses(), family, ifname, interface.source_address);

  const auto own_mac = info.hardware_address(LinkSocket::kPacket, ifname);
  if (own_mac.step == LinkStep::kSocketFailed) return failed(PathStep::kNoSocket, own_mac.error);
  if (!own_mac.answered()) return failed(PathStep::kNoHardwareAddress, own_mac.error);
  path.source_mac = own_mac.value;

  path.ifindex = static_cast<int>(info.index(ifname));
  if (path.ifindex == 0) return failed(PathStep::kNoIndex, errno);

  const SourceFailure source = settle_source(info, family, ifname, destination.target, path.source);
  switch (source.step) {
    case SourceFailure::Step::kNone:
      break;
    case SourceFailure::Step::kNoOwnAddress:
      return failed(PathStep::kNoOwnAddress, source.error);
    case SourceFailure::Step::kNotPresent:
      return failed(PathStep::kSourceAbsent, source.error, path.source);
  }

  const auto gateway_mac = prober.resolve(destination.gateway, path.source, ifname);
  if (!gateway_mac) return failed(PathStep::kNoNeighbor, EHOSTUNREACH);
  path.gateway_mac = *gateway_mac;
  return {};
}

}  // namespace

bool resolve_host(const Family& family, const std::string& host, void* address) {
  // The resolver would say the same, after a look at its files.
  if (address_from_text(family.address_family, host, address) == 1) return true;
  hostent entry{};
  hostent* found = nullptr;
  int resolver_error = 0;
  std::vector<char> buffer(1024);
  while (gethostbyname2_r(host.c_str(), family.address_family, &entry, buffer.data(), buffer.size(),
                          &found, &resolver_error) == ERANGE &&
         buffer.size() < kLargestResolverBuffer) {
    buffer.resize(buffer.size() * 2);
  }
  const size_t size = address_size(family);
  if (found == nullptr || found->h_addr_list[0] == nullptr ||
      found->h_length != static_cast<int>(size)) {
    return false;
  }
  std::memcpy(address, found->h_addr_list[0], size);
  return true;
}

PathResult prepare_raw_path(const Family& family, int socket, const std::string& ifname,
                            const std::string& target, const LBWorkerContext& worker,
                            SocketAddress& destination) {
  if (ifname.empty() || target.empty() || worker.ipv6 != family.ipv6) {
    return failed(PathStep::kNotMeant, EINVAL);
  }
  in6_addr resolved;  // room for an address of either family
  if (!resolve_host(family, target, &resolved)) {
    return failed(PathStep::kUnresolved, EHOSTUNREACH, target);
  }
  if (setsockopt(socket, SOL_SOCKET, SO_BINDTODEVICE, ifname.c_str(),
                 static_cast<socklen_t>(ifname.size() + 1)) != 0) {
    return failed(PathStep::kNotBound, errno, ifname);
  }
  destination = {};
  if (family.ipv6) {
    destination.ipv6.sin6_family = AF_INET6;
    destination.ipv6.sin6_addr = resolved;
    destination.size = sizeof(destination.ipv6);
    return {};
  }
  destination.ipv4 = sockaddr_in{};
  destination.ipv4.sin_family = AF_INET;
  destination.size = sizeof(destination.ipv4);
  // inet_aton leaves errno alone; this is what its failure means.
  if (inet_aton(target.c_str(), &destination.ipv4.sin_addr) == 0) {
    return failed(PathStep::kNotDotted, EINVAL);
  }
  return {};
}

template <class AddressFamily>
PathResult prepare_frame_path(const LBInterface& interface, const Destination& destination,
                              const LBWorkerContext& worker, FramePath<AddressFamily>& path) {
  const Family& family = AddressFamily::kFamily;
  if (worker.ipv6 != family.ipv6) return failed(PathStep::kNotMeant, EINVAL);
  LinkPath link;
  if (auto result = prepare_link(interface, destination, worker, link); !result.ready()) {
    return result;
  }
  path.ifindex = link.ifindex;
  path.addresses.source_mac = link.source_mac;
  path.addresses.destination_mac = link.gateway_mac;
  const std::string& target = destination.target;
  if (!parse_address(family.address_family, link.source, &path.addresses.source) ||
      !parse_address(family.address_family, target, &path.addresses.destination)) {
    return failed(PathStep::kNoAddress, EINVAL);
  }
  // The kernel never sees the request, so its reply would belong to no connection. Without the
  // record the probe still goes out: most firewalls let it through.
  create_conntrack_record(link.source, target, worker);
  return {};
}

template PathResult prepare_frame_path<Ipv4>(const LBInterface&, const Destination&,
                                             const LBWorkerContext&, FramePath<Ipv4>&);
template PathResult prepare_frame_path<Ipv6>(const LBInterface&, const Destination&,
                                             const LBWorkerContext&, FramePath<Ipv6>&);

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
