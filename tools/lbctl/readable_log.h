// What the daemon's libraries log, for people at a terminal.
#pragma once

#include <string>
#include <vector>

#include "lbctl/platform/recorded_log.h"

namespace lbctl {

// The messages without the marks that log readers go by ("%WAN-W-WARN: wan_lb: "), in order, each
// once.
std::vector<std::string> readable(const std::vector<LogMessage>& messages);

}  // namespace lbctl
