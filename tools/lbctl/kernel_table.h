// The routes in the kernel's main table, for the question whether a written route is in force.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace lbctl {

struct KernelNexthop {
  std::string address;  // canonical text; empty: directly on the device
  std::string device;
  int weight = 1;
};

struct KernelRoute {
  std::string destination;  // canonical prefix, "0.0.0.0/0" for the default route
  uint32_t metric = 0;
  uint8_t protocol = 0;  // RTPROT_*
  std::vector<KernelNexthop> nexthops;
};

// Whether a routing daemon has put it there: BIRD or another one.
bool is_routing_daemons(const KernelRoute& route);

// Who else has put it there, in words: "a DHCP client".
std::string origin_of(const KernelRoute& route);

// Of the VRF's network namespace ("default": the calling thread's) and one family; in the kernel's
// order. No value where they may not be read, or the VRF is not there.
std::optional<std::vector<KernelRoute>> read_kernel_routes(const std::string& vrf, bool ipv6);

// The canonical form of a destination as a rule has it: host bits cleared, "default" spelt out.
// Empty when it is none of the family.
std::string canonical_destination(const std::string& text, bool ipv6);

}  // namespace lbctl
