// What the daemon writes for its routing daemon in a given state.
#pragma once

#include <string>
#include <vector>

#include "config/lb_config.h"
#include "routing/static_routes.h"

namespace lbctl {

// The file of one family of a VRF.
struct RouteFile {
  std::string path;
  bool ipv6 = false;
  bool served = false;               // false: no worker of the daemon ever writes the file
  RoutePlan plan;                    // what the text is made of
  std::string text;                  // the exact bytes
  std::vector<std::string> remarks;  // what is left out or kept, as sentences
};

// For the states that the model's interfaces are in. With "keep-last-routes" all of them are
// taken to have been active before.
RouteFile make_route_file(const LBConfig& config, const std::string& vrf, bool ipv6);

// Whether the VRF has interfaces and rules of the family, so that the daemon has a worker for them.
bool is_served(const LBConfig& config, const std::string& vrf, bool ipv6);

// What the file holds now; empty where there is none. A Failure (kExitUnreadable) for one that
// cannot be read or is no regular file.
struct FileInForce {
  bool exists = false;
  std::string text;
};
FileInForce read_route_file(const std::string& path);

}  // namespace lbctl
