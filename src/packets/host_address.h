// The host's own IPv6 addresses as the kernel tells them in a dump (RTM_NEWADDR, rtnetlink(7)).
#pragma once

#include <linux/if_addr.h>
#include <netinet/in.h>

#include <cstdint>
#include <optional>

#include "packets/netlink_dump.h"

struct HostAddressRequest {
  nlmsghdr header{};
  ifaddrmsg address{};
};

static_assert(sizeof(ifaddrmsg) == 8);
static_assert(sizeof(HostAddressRequest) == 24);

// Asks for the IPv6 addresses of all interfaces.
HostAddressRequest make_host_address_request();

struct HostAddress {
  in6_addr address{};
  unsigned int ifindex = 0;
  uint8_t prefix_length = 0;
  uint32_t flags = 0;  // IFA_F_*
};

// The address that `message` tells; nothing when it tells none.
std::optional<HostAddress> read_host_address(const NetlinkMessage& message);
