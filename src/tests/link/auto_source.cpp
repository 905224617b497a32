#include "tests/link/auto_source.h"

#include <net/if.h>
#include <sys/socket.h>

#include <cerrno>
#include <cstring>

#include "config/log.h"
#include "packets/host_address.h"
#include "packets/packet_reader.h"
#include "platform/file_descriptor.h"
#include "routing/route_dump.h"
#include "tests/link/source_selection.h"

namespace {

// Of no meaning: no datagram is sent.
constexpr uint16_t kDiscardPort = 9;

// A socket address of either family.
union Endpoint {
  sockaddr any;
  sockaddr_in ipv4;
  sockaddr_in6 ipv6{};
};

// What the kernel has bound a datagram socket to when it was connected to `target`.
struct KernelChoice {
  int error = 0;  // an errno value
  std::string source;
};

Endpoint endpoint_of(const Family& family, const in6_addr& target, unsigned int ifindex) {
  Endpoint endpoint;
  if (family.ipv6) {
    endpoint.ipv6.sin6_family = AF_INET6;
    endpoint.ipv6.sin6_port = htons(kDiscardPort);
    endpoint.ipv6.sin6_addr = target;
    endpoint.ipv6.sin6_scope_id = ifindex;  // looked at for link-local targets only
  } else {
    endpoint.ipv4 = sockaddr_in{};
    endpoint.ipv4.sin_family = AF_INET;
    endpoint.ipv4.sin_port = htons(kDiscardPort);
    std::memcpy(&endpoint.ipv4.sin_addr, &target, sizeof(endpoint.ipv4.sin_addr));
  }
  return endpoint;
}

// Empty for the unspecified address.
std::string source_text(const Family& family, const Endpoint& endpoint) {
  if (!family.ipv6) {
    const in_addr& address = endpoint.ipv4.sin_addr;
    return address.s_addr == INADDR_ANY ? std::string() : address_to_text(AF_INET, &address);
  }
  const in6_addr& address = endpoint.ipv6.sin6_addr;
  return IN6_IS_ADDR_UNSPECIFIED(&address) ? std::string() : address_to_text(AF_INET6, &address);
}

KernelChoice ask_kernel(const Family& family, const std::string& ifname, const in6_addr& target,
                        unsigned int ifindex) {
  const FileDescriptor fd(socket(family.address_family, SOCK_DGRAM | SOCK_CLOEXEC, 0));
  Endpoint endpoint = endpoint_of(family, target, ifindex);
  socklen_t size = family.ipv6 ? sizeof(endpoint.ipv6) : sizeof(endpoint.ipv4);
  if (!fd.valid() ||
      setsockopt(fd.get(), SOL_SOCKET, SO_BINDTODEVICE, ifname.c_str(),
                 static_cast<socklen_t>(ifname.size() + 1)) != 0 ||
      connect(fd.get(), &endpoint.any, size) != 0 ||
      getsockname(fd.get(), &endpoint.any, &size) != 0) {
    return {errno, {}};
  }
  return {0, source_text(family, endpoint)};
}

// Also by a policy rule or a route that refuses what has no better one: "prohibit", "blackhole".
// For IPv4 the kernel looks past them by itself.
bool says_no_route(int error) {
  return error == ENETUNREACH || error == EHOSTUNREACH || error == EACCES || error == EINVAL;
}

std::string select_from_host(const in6_addr& target, unsigned int ifindex) {
  const HostAddressRequest request = make_host_address_request();
  const auto dump = dump_entries<HostAddress>(bytes_of(request),
                                              [](const NetlinkMessage& message, auto& addresses) {
                                                if (const auto address = read_host_address(message))
                                                  addresses.push_back(*address);
                                              });
  if (dump.error != 0) {
    LB_WARNING("Failed to read the host's addresses, errno = %d", dump.error);
    return {};
  }
  const auto source = select_source(dump.entries, target, ifindex);
  return source ? address_to_text(AF_INET6, &*source) : std::string();
}

}  // namespace

std::string auto_source(const Family& family, const std::string& ifname,
                        const std::string& target) {
  in6_addr address{};  // room for an address of either family
  const unsigned int ifindex = if_nametoindex(ifname.c_str());
  if (ifindex == 0 || address_from_text(family.address_family, target, &address) != 1) return {};
  const KernelChoice choice = ask_kernel(family, ifname, address, ifindex);
  return family.ipv6 && says_no_route(choice.error) ? select_from_host(address, ifindex)
                                                    : choice.source;
}
