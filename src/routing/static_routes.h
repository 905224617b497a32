// The static routes of one VRF and family, as text. No files, no log, no lock beyond the
// interfaces' own.
#pragma once

#include <map>
#include <string>

#include "config/lb_config.h"

struct StaticRoutes {
  // One line "route PREFIX via ADDRESS weight N [metric M] [via ...];" per destination that has a
  // next hop, in the order of the rules and their destinations.
  std::string body;

  // Per rule name and destination: the next hop of a failover rule.
  std::map<std::string, WrittenState::TextByTarget> failover_nexthops;
};

// The routes that the present interface states give.
StaticRoutes build_static_routes(const LBConfig& config, bool ipv6, const std::string& vrf);

// The routing daemon's form of the body: one "protocol static" block per line.
std::string protocol_static_text(const std::string& body, bool ipv6);
