#include "lbctl/reverse_path.h"

#include <fmt/format.h>

namespace lbctl {

// Strict filtering drops a reply whose sender the kernel would answer by another device, loose
// filtering one whose sender it could not answer at all.
std::optional<std::string> dropped_replies(const Machine& machine, const std::string& vrf,
                                           const std::string& device, const std::string& source,
                                           const std::string& target) {
  const auto facts = machine.device(vrf, device);
  if (!facts || !facts->present || facts->rp_filter == 0) return std::nullopt;
  const auto way = machine.way_back(vrf, device, source == "auto" ? std::string() : source, target);
  if (!way || *way == device || (facts->rp_filter == 2 && !way->empty())) return std::nullopt;
  return fmt::format(
      "device '{}' filters reverse paths (rp_filter {}), and the way back to {} does not lead by "
      "it: replies are dropped before the daemon sees them",
      device, facts->rp_filter, target);
}

}  // namespace lbctl
