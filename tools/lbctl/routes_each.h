// What a configuration's routes become when each single interface fails.
#pragma once

#include <string>
#include <vector>

#include "config/lb_config.h"

namespace lbctl {

// A table: the routes with every interface active, then for each interface of the VRF and the
// families that is down alone the destinations that change, and to what. The states in the model
// are left as they were.
std::string table_of_each(const LBConfig& config, const std::string& vrf,
                          const std::vector<bool>& families);

}  // namespace lbctl
