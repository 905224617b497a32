// A configuration's interfaces in a state that somebody asks about.
#pragma once

#include <optional>
#include <string>
#include <vector>

#include "config/lb_config.h"

namespace lbctl {

struct InterfaceName {
  std::string name;
  bool ipv6 = false;
};

struct AssumedNexthop {
  InterfaceName interface;
  std::string address;  // empty: none was found
};

// The interface that "wan1" (IPv4) or "wan1/6" (IPv6) stands for; where `only_ipv6` says that no
// other family is asked about, "wan1" is the IPv6 one too. A Failure (kExitUsage) for a name that
// the configuration does not have.
InterfaceName find_interface_name(const LBConfig& config, const std::string& label, bool only_ipv6);

// "NAME=ADDRESS", or "NAME=-" for none. A Failure (kExitUsage) for another form, an address that is
// none of the interface's family, or an interface whose next hop is configured.
AssumedNexthop parse_assumed_nexthop(const LBConfig& config, const std::string& text,
                                     bool only_ipv6);

// Every interface, or one.
void assume_all(LBConfig& config, bool active);
void assume(LBConfig& config, const InterfaceName& interface, bool active);

// The next hop that was found at run time.
void assume_nexthop(LBConfig& config, const AssumedNexthop& nexthop);

}  // namespace lbctl
