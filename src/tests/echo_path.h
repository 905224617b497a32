// The two ways of an echo request out of an interface: through a raw ICMP socket that is bound to
// the interface, or as a whole Ethernet frame to the next hop.
//
// Everything here runs on the interface's worker, in its network namespace. What fails is returned;
// path_messages.h says it in the words of the test that it concerns. What the steps say in the same
// words for whoever asks (a text that is no address, a neighbour, a record) they log themselves.
#pragma once

#include <netinet/in.h>

#include <string>

#include "config/lb_config.h"
#include "config/worker_context.h"
#include "packets/family.h"
#include "packets/icmp_echo.h"
#include "tests/destination.h"
#include "tests/io/socket_address.h"

// How far the preparation of a path came.
enum class PathStep {
  kReady,
  kNotMeant,           // no target or interface name, or a worker of the other family
  kUnresolved,         // the target's name
  kNotBound,           // the socket to the interface
  kNotDotted,          // an IPv4 target that is no dotted quad
  kNoSocket,           // for the question about the hardware address
  kNoHardwareAddress,  // of the interface
  kNoIndex,            // of the interface
  kNoOwnAddress,       // of the interface
  kSourceAbsent,       // from the host's interfaces
  kNoNeighbor,         // that answered for the next hop
  kNoAddress,          // in the text of source or target (logged)
};

struct PathResult {
  PathStep step = PathStep::kReady;
  int error = 0;        // an errno value
  std::string subject;  // what the failure is about: a host, an interface, an address

  bool ready() const { return step == PathStep::kReady; }
};

// The first address of `host`, which may be a name, into `address` (in_addr or in6_addr, network
// byte order). False when there is none. May take as long as the system's resolver does.
bool resolve_host(const Family& family, const std::string& host, void* address);

// Binds `socket` to the interface and finds the destination of a raw probe. A name is accepted as
// IPv6 target; an IPv4 one is resolved too but then refused, since only dotted quads are probed.
PathResult prepare_raw_path(const Family& family, int socket, const std::string& ifname,
                            const std::string& target, const LBWorkerContext& worker,
                            SocketAddress& destination);

// A link-level path that is ready for frames.
template <class AddressFamily>
struct FramePath {
  int ifindex = 0;
  FrameAddresses<typename AddressFamily::Address> addresses;
};

// Chooses the source address, resolves the next hop's hardware address and enters the
// connection-tracking record. For Ipv4 and Ipv6.
template <class AddressFamily>
PathResult prepare_frame_path(const LBInterface& interface, const Destination& destination,
                              const LBWorkerContext& worker, FramePath<AddressFamily>& path);

// True when the interface sends without link-layer addresses. Read from the kernel once and cached;
// a failed read counts as false and is tried again.
bool is_no_arp(LBInterface& interface);
