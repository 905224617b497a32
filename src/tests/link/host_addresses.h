// The addresses of the host, by the names of the interfaces that have them, as getifaddrs(3) lists
// them. To read the list costs as much as the host has interfaces, and every probe asks; so it is
// kept for as long as the kernel tells of no change (rtnetlink(7), RTMGRP_LINK and
// RTMGRP_*_IFADDR).
#pragma once

#include <netinet/in.h>

#include <cstddef>
#include <functional>
#include <string>
#include <vector>

#include "platform/file_descriptor.h"

struct InterfaceAddress {
  std::string ifname;  // an IPv4 address has the label that it was given
  int family = AF_UNSPEC;
  in6_addr bytes{};  // an in_addr in its first bytes, or an in6_addr; network byte order
};

// Of the network namespace in which the first question is asked. Not for two threads at once.
class HostAddresses {
 public:
  // The first address in the host's order that `wanted` takes, of the interfaces whose names begin
  // with `beginning`; null where there is none. Good until the next refresh.
  const InterfaceAddress* find(const std::string& beginning,
                               const std::function<bool(const InterfaceAddress&)>& wanted) const;

  // Reads the list unless the last one is still right. False, with errno set and the list empty,
  // when it cannot be read. Without word of changes (no socket) it is read every time.
  bool refresh();

 private:
  struct Entry {
    InterfaceAddress address;
    size_t place;  // in the host's order
  };

  // Whether the kernel has told of a change since the last call.
  bool has_changed() const;

  FileDescriptor changes_;
  bool is_read_ = false;
  std::vector<Entry> by_name_;
};
