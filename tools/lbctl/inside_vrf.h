// Questions that only a thread in a VRF's network namespace can ask.
#pragma once

#include <functional>
#include <string>

namespace lbctl {

// Runs `ask` where the VRF's interfaces and routes are seen: on the calling thread for "default",
// else on a thread that has entered the namespace and ends with it. Empty, or why `ask` was not run
// ("VRF red cannot be entered: Operation not permitted"). An exception of `ask` goes to the caller.
std::string run_inside_vrf(const std::string& vrf, const std::function<void()>& ask);

}  // namespace lbctl
