// The router in the lease files that stock clients leave: the database of ISC's dhclient, and the
// assignments that a client's script writes.
//
// Pure functions of the bytes: they never fail, whatever those are, and give nothing that is no
// address of the family.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

// IPv4, dhclient.leases(5): blocks "lease { interface "eth0"; option routers 192.0.2.1, 192.0.2.2;
// expire 3 2026/11/25 01:02:03; }", appended one after the other. The first router of the last one
// that is of the interface `device` (one that names none counts too) and has not expired at `now`,
// in seconds since 1970; dates are UTC. A block that was not finished, or whose end cannot be told,
// does not count.
std::optional<std::string> isc_lease_router(std::string_view text, const std::string& device,
                                            int64_t now);

// IPv6: the first address of the first line "new_routers='fe80::1 fe80::2'" that has one. Blocks
// "lease6 { ... }" are passed over as a whole: DHCPv6 tells no router.
std::optional<std::string> script_router(std::string_view text);
