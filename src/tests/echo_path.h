// The two ways of an echo request out of an interface: through a raw ICMP socket that is bound to
// the interface, or as a whole Ethernet frame to the next hop.
//
// Everything here runs on the interface's worker, in its network namespace. The functions return 0,
// or the errno value of the failure; what has a message is logged. `Words` gives the messages that
// differ between the tests.
#pragma once

#include <netinet/in.h>

#include <optional>
#include <string>

#include "config/lb_config.h"
#include "config/worker_context.h"
#include "packets/family.h"
#include "packets/icmp_echo.h"

// The identifier of every echo request and of its connection-tracking record.
uint16_t echo_identifier();

// The first address of `host`, which may be a name, or nothing. May take as long as the system's
// resolver does.
template <class Family>
std::optional<typename Family::Address> resolve_host(const std::string& host);

template <class Family>
struct SocketAddress;

template <>
struct SocketAddress<Ipv4> {
  using Type = sockaddr_in;
};

template <>
struct SocketAddress<Ipv6> {
  using Type = sockaddr_in6;
};

// Binds `socket` to the interface and finds the destination of a raw probe. A name is accepted as
// IPv6 target; an IPv4 one is resolved too but then refused, since only dotted quads are probed.
template <class Family, class Words>
int prepare_raw_path(int socket, const std::string& ifname, const std::string& target,
                     const LBWorkerContext& worker,
                     typename SocketAddress<Family>::Type& destination);

// A link-level path that is ready for frames.
template <class Family>
struct FramePath {
  int ifindex = 0;
  FrameAddresses<typename Family::Address> addresses;
};

// Resolves the next hop's hardware address, checks the source address (empty: the interface's own,
// IPv4 only) and enters the connection-tracking record.
template <class Family, class Words>
int prepare_frame_path(const LBInterface& interface, const std::string& source,
                       const std::string& target, const std::string& gateway,
                       const LBWorkerContext& worker, FramePath<Family>& path);

// True when the interface sends without link-layer addresses. Read from the kernel once and cached;
// a failed read counts as false and is tried again.
bool is_no_arp(LBInterface& interface);

// Logs a failed probe; an unreachable network is expected while a link is down and not worth a
// line.
template <class Family>
void log_send_error(int error);
