// The kernel's reverse-path filter (rp_filter), which drops replies before anybody sees them.
#pragma once

#include <optional>
#include <string>

#include "lbctl/check_machine.h"

namespace lbctl {

// That replies of the target (IPv4) are dropped when they come in by the device, in words that go
// on from "the "; no value where they are not, or it cannot be told. `source` as configured: an
// address, "auto", or empty.
std::optional<std::string> dropped_replies(const Machine& machine, const std::string& vrf,
                                           const std::string& device, const std::string& source,
                                           const std::string& target);

// What mends it.
inline constexpr const char* kDroppedRepliesMend =
    "ask for 'replies wire', set rp_filter to 0 or lead replies back with a source rule (ip rule "
    "add from ADDRESS table NUMBER)";

}  // namespace lbctl
