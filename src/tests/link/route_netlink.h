// Route-netlink requests (RFC 3549, rtnetlink(7)) on the kernel's IPv6 neighbour table. Each call
// opens a socket in the calling thread's network namespace and closes it again; any thread.
#pragma once

#include <sys/uio.h>

#include <cstddef>
#include <cstdint>
#include <span>
#include <string>
#include <vector>

#include "packets/ethernet.h"

// Room for what the kernel tells of one neighbour, which is some hundred bytes.
inline constexpr size_t kNeighborAnswerSize = 8192;

// Sends the request that `iov` holds and reads the answer. 1: it holds a neighbour entry for
// `target` (an address in canonical text) on the interface with index `ifindex` (0: on any), whose
// link-layer address is in `*mac_out`; 0: the answer ended without one, or the kernel acknowledged;
// -1: failure (logged where the kernel or a socket said so), or the entry was there and `mac_out`
// is null.
int rtnl_exchange(iovec* iov, size_t iov_count, MacAddress* mac_out, const std::string& target,
                  unsigned int ifindex = 0);

// Appends an attribute to a request of at most `bound` bytes. False, printed and logged, when it
// would grow beyond that.
bool add_route_attribute(std::vector<uint8_t>& message, uint16_t type,
                         std::span<const uint8_t> data, size_t bound);

// Looks `target` up in the kernel's neighbour table, on the interface with index `ifindex`; the
// result is that of rtnl_exchange.
int get_neighbor_mac(const std::string& target, unsigned int ifindex, MacAddress* mac_out);

// Enters `target` as reachable under `mac` on the interface `ifname`, without replacing an entry.
// 0 when the kernel acknowledged, else -1 (logged).
int add_neighbor_entry(const std::string& target, const MacAddress& mac, const std::string& ifname);
