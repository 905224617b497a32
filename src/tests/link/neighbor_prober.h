// The neighbour prober (RFC 4861 section 7.2): link-layer addresses of IPv6 next hops.
#pragma once

#include "tests/link/link_prober.h"
#include "tests/link/neighbor_table.h"

extern const LinkProtocol kNeighborProtocol;

class LBNeighbor : public LinkProber {
 public:
  LBNeighbor();

  // Sends one solicitation for the target by its interface. Failures go to standard error (none for
  // an interface that does not exist); a failed sending also closes the VRF's sending socket, and
  // the next solicitation opens a new one.
  void send_solicit();

  // Starts the receiver thread of this VRF, once. Not called by the daemon itself, whose first
  // request starts it; for whoever links the library.
  void receive_reply() { start_receiver(); }

 protected:
  FirstLook look_first(MacAddress& mac) override;
  int look_up(MacAddress& mac) override;
  void send_request() override;

 private:
  NeighborTable table_;
};
