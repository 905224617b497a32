// The ARP prober (RFC 826): link-layer addresses of IPv4 next hops.
#pragma once

#include "tests/link/link_prober.h"

extern const LinkProtocol kArpProtocol;

class LBArp : public LinkProber {
 public:
  LBArp();

  // 1: the kernel's table holds a complete entry for the target; 0: none, or an incomplete one;
  // -1: it could not be asked (logged).
  int check_arp_exist();

  // 1 and the address when the entry is complete; 0 when it is incomplete; -1 when there is none or
  // the table could not be asked.
  int get_mac(MacAddress& mac);

  // Broadcasts one request for the target on its interface. The bytes sent (42), or -1 (logged,
  // unless the interface does not exist).
  int send_arp();

  // Starts the receiver thread of this VRF, once. Not called by the daemon itself, whose first
  // request starts it; for whoever links the library.
  void received_arp() { start_receiver(); }

 protected:
  FirstLook look_first(MacAddress& mac) override;
  int look_up(MacAddress& mac) override;
  void send_request() override;

 private:
  // check_arp_exist, with the address of a complete entry.
  int check_entry(MacAddress& mac);
};
