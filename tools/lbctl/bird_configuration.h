// What a running BIRD was told to read. Its control socket tells none of that.
#pragma once

#include <optional>
#include <string>
#include <vector>

namespace lbctl {

// The configuration in BIRD's arguments (the first is its name): a whole path, Debian's own where
// none is given; empty where it cannot be told.
std::string configuration_in(const std::vector<std::string>& arguments);

// Whether the configuration includes the file, by itself or in what it includes. No value where
// one of them cannot be read. `root` stands before all paths.
std::optional<bool> bird_includes(const std::string& root, const std::string& configuration,
                                  const std::string& file);

// The configuration of the VRF's routing daemon, where that is a running BIRD and does not include
// the file; else empty, also where it cannot be told.
std::string bird_configuration_without(const std::string& vrf, const std::string& file);

}  // namespace lbctl
