// The ARP prober (RFC 826): link-layer addresses of IPv4 next hops.
#pragma once

#include <optional>
#include <span>
#include <string>

#include "tests/link/link_prober.h"

template <>
struct LinkProtocol<Ipv4> {
  static constexpr const char* kDestructor = "~LBArp";
  static constexpr const char* kMutex = "_arp_mutex";
  static constexpr const char* kStarter = "received_arp";
  static constexpr const char* kReceiver = "recv_arp";
  static constexpr const char* kThread = "arp";
  static constexpr bool kUnlockWithoutSocket = true;

  static FileDescriptor open_receiver();
  static bool handle_frame(std::span<const uint8_t> frame, WatchedTargets& targets);
  static void log_no_send_socket(const std::string& vrf);
  static void log_no_mutex(int rc);
  static void log_receive_failure(const char* call);
};

class LBArp : public LinkProber<Ipv4> {
 public:
  // 1: the kernel's table holds a complete entry for the target; 0: none, or an incomplete one;
  // -1: it could not be asked (logged).
  int check_arp_exist();

  // 1 and the address when the entry is complete; 0 when it is incomplete; -1 when there is none or
  // the table could not be asked.
  int get_mac(MacAddress& mac);

  // Broadcasts one request for the target on its interface. The bytes sent (42), or -1 (logged,
  // unless the interface does not exist).
  int send_arp();

  // Starts the receiver thread of this VRF, once.
  void received_arp() { start_receiver(); }
};

// Resolves the link-layer address of `gateway` for frames from `source` by `ifname`: asks the
// kernel's table, sends a request where that has no entry, and waits about a tenth of a second at
// most. Nothing when the address did not come. The prober's worker only.
std::optional<MacAddress> resolve_link_address(LBArp& prober, const std::string& gateway,
                                               const std::string& source,
                                               const std::string& ifname);
