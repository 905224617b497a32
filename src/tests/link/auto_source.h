// The source address of a probe on an interface with "source_address auto". Looks into the calling
// thread's network namespace; any thread.
#pragma once

#include <string>
#include <string_view>

#include "packets/family.h"

inline constexpr std::string_view kAutoSource = "auto";

// The address that the kernel would choose for `target` (an address of the family) out of the
// interface `ifname`. Where it says that no route leads there, which is the case while the route is
// withdrawn, an IPv6 address is chosen as it would (source_selection.h); IPv4 needs no route. Empty
// when there is no such address, or `target` is none. Sends nothing.
std::string auto_source(const Family& family, const std::string& ifname, const std::string& target);
