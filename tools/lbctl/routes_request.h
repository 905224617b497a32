// What is asked of `lbctl routes`, and its answer.
#pragma once

#include <string>
#include <vector>

namespace lbctl {

struct RoutesRequest {
  std::string configuration;
  bool ipv4 = false;  // neither: both families
  bool ipv6 = false;
  std::string vrf = "default";
  std::vector<std::string> down;  // labels ("wan1", "wan1/6"); all others are up
  std::vector<std::string> up;    // the reverse
  bool each = false;
  std::vector<std::string> nexthops;  // "NAME=ADDRESS"
  bool difference = false;
  bool asks_bird = false;
};

// The exit status. Complaints that end nothing go to standard error.
int run_routes(const RoutesRequest& request);

}  // namespace lbctl
