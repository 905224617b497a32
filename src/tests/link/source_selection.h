// The choice among the host's IPv6 addresses (RFC 6724 section 5), as the kernel makes it.
#pragma once

#include <netinet/in.h>

#include <optional>
#include <span>

#include "packets/host_address.h"

// The best source for `destination` out of the interface with index `ifindex`. Candidates are the
// addresses of the host that are verified, link-local ones of that interface only; for a link-local
// destination, none of other interfaces. Rules 1, 2, 3, 5, 6 with the default policy table, 7
// (public addresses before temporary ones, for a probe is no secret) and 8; of equals the first.
// Pure; nothing when there is no candidate.
std::optional<in6_addr> select_source(std::span<const HostAddress> addresses,
                                      const in6_addr& destination, unsigned int ifindex);
