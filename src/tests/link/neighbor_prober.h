// The neighbour prober (RFC 4861 section 7.2): link-layer addresses of IPv6 next hops.
#pragma once

#include <optional>
#include <span>
#include <string>

#include "tests/link/link_prober.h"

template <>
struct LinkProtocol<Ipv6> {
  static constexpr const char* kDestructor = "~LBNeighbor";
  static constexpr const char* kMutex = "_neighbor_mutex";
  static constexpr const char* kStarter = "receive_reply";
  static constexpr const char* kReceiver = "recv_neighbor";
  static constexpr const char* kThread = "neigh";
  // A receiver without a socket keeps the lock: requests that nobody would hear the answer of are
  // held back for good.
  static constexpr bool kUnlockWithoutSocket = false;

  static FileDescriptor open_receiver();
  static bool handle_frame(std::span<const uint8_t> frame, WatchedTargets& targets);
  static void log_no_send_socket(const std::string& vrf);
  static void log_no_mutex(int rc);
  static void log_receive_failure(const char* call);
};

class LBNeighbor : public LinkProber<Ipv6> {
 public:
  // Sends one solicitation for the target by its interface. Failures go to standard error (none for
  // an interface that does not exist); a failed sending also closes the VRF's sending socket.
  void send_solicit();

  // Starts the receiver thread of this VRF, once.
  void receive_reply() { start_receiver(); }
};

// As for LBArp: nothing when the address is neither known nor comes within a tenth of a second.
std::optional<MacAddress> resolve_link_address(LBNeighbor& prober, const std::string& gateway,
                                               const std::string& source,
                                               const std::string& ifname);
