#include "lbctl/kernel_table.h"

#include <linux/rtnetlink.h>
#include <net/if.h>

#include <array>
#include <cerrno>
#include <map>

#include <fmt/format.h>

#include "lbctl/inside_vrf.h"
#include "lbctl/kernel_route_message.h"
#include "packets/default_route.h"
#include "packets/packet_reader.h"
#include "routing/bird2_syntax.h"
#include "routing/route_dump.h"

namespace lbctl {

namespace {

using Table = std::optional<std::vector<KernelRoute>>;

// Names of devices in the calling thread's namespace; each is asked for once.
class DeviceNames {
 public:
  std::string operator()(unsigned int index) {
    const auto [entry, is_new] = names_.try_emplace(index);
    std::array<char, IF_NAMESIZE> name{};
    if (is_new && if_indextoname(index, name.data()) != nullptr) entry->second = name.data();
    return entry->second;
  }

 private:
  std::map<unsigned int, std::string> names_;
};

Table read_own_table(const Family& family) {
  // It asks for the whole main table, of which the daemon takes the default routes.
  const DefaultRouteRequest request = make_default_route_request(family);
  DeviceNames names;
  const DeviceName name_of = [&names](unsigned int index) { return names(index); };
  auto dump = dump_entries<KernelRoute>(
      bytes_of(request), [&](const NetlinkMessage& message, std::vector<KernelRoute>& routes) {
        append_kernel_route(message, family, name_of, routes);
      });
  // The main table of a namespace comes into being with its first route.
  if (dump.error == ENOENT) return std::vector<KernelRoute>();
  if (dump.error != 0) return std::nullopt;
  return std::move(dump.entries);
}

}  // namespace

bool is_routing_daemons(const KernelRoute& route) {
  switch (route.protocol) {
    case RTPROT_RA:
    case RTPROT_DHCP:
    case RTPROT_KEEPALIVED:
      return false;
    default:
      return route.protocol > RTPROT_STATIC;
  }
}

// rtnetlink(7), /etc/iproute2/rt_protos.
std::string origin_of(const KernelRoute& route) {
  switch (route.protocol) {
    case RTPROT_KERNEL:
      return "the kernel";
    case RTPROT_BOOT:
      return "ip route";
    case RTPROT_STATIC:
      return "a static configuration";
    case RTPROT_RA:
      return "a router advertisement";
    case RTPROT_DHCP:
      return "a DHCP client";
    case RTPROT_KEEPALIVED:
      return "keepalived";
    default:
      return fmt::format("protocol {}", route.protocol);
  }
}

Table read_kernel_routes(const std::string& vrf, bool ipv6) {
  const Family& family = family_of(ipv6);
  Table table;
  run_inside_vrf(vrf, [&] { table = read_own_table(family); });
  return table;
}

std::string canonical_destination(const std::string& text, bool ipv6) {
  return Bird2Syntax().written_destination(text, ipv6);
}

}  // namespace lbctl
