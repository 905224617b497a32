// The kernel's IPv6 neighbour table, for a worker that looks into it with every probe.
#pragma once

#include <string>

#include "packets/ethernet.h"
#include "platform/file_descriptor.h"

// Of the network namespace in which the first question is asked. Not for two threads at once.
class NeighborTable {
 public:
  // Asks the kernel for the one entry (RTM_GETNEIGH, since Linux 5.0) through a socket that is
  // kept, with the result of get_neighbor_mac (route_netlink.h), which is asked where the kernel
  // answers no such question: it gets the whole table for every look.
  int get_mac(const std::string& target, unsigned int ifindex, MacAddress& mac);

 private:
  FileDescriptor socket_;
};
