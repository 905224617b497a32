// A machine as tests want it, and findings as they compare them.
#pragma once

#include <optional>
#include <string>
#include <vector>

#include <fmt/format.h>

#include "lbctl/check_file.h"

namespace lbctl {

// Knows the VRFs blue and green, whose BIRD includes nothing, and every device but "gone0"; "tun0"
// has no link-layer addresses, "strict0" and "loose0" filter. IPv4 replies from 198.51.100.7 would
// go back by another device, and there is no way to 198.51.100.9. IPv6 has another program's
// default route.
class FakeMachine : public Machine {
 public:
  bool has_vrf(const std::string& vrf) const override { return vrf == "blue" || vrf == "green"; }

  std::optional<DeviceFacts> device(const std::string& /*vrf*/,
                                    const std::string& name) const override {
    if (name == "secret0") return std::nullopt;
    DeviceFacts facts{.present = name != "gone0", .no_arp = name == "tun0"};
    facts.rp_filter = name == "strict0" ? 1 : name == "loose0" ? 2 : 0;
    return facts;
  }

  std::optional<std::string> way_back(const std::string& /*vrf*/, const std::string& device,
                                      const std::string& source,
                                      const std::string& target) const override {
    if (target == "198.51.100.9") return std::string();
    if (target == "198.51.100.7" && source != "192.0.2.10") return "other0";
    return device;
  }

  std::string bird_configuration_without(const std::string& vrf,
                                         const std::string& /*path*/) const override {
    return vrf == "green" ? "/etc/bird/green.conf" : "";
  }

  std::optional<std::vector<KernelRoute>> routes(const std::string& /*vrf*/,
                                                 bool ipv6) const override {
    std::vector<KernelRoute> routes = own_routes;
    if (ipv6) routes.push_back({"::/0", 32, 9, {{"fe80::1", "eth7", 1}}});
    return routes;
  }

  std::vector<KernelRoute> own_routes;
};

// "LINE:COLUMN CODE" of each finding.
inline std::vector<std::string> told(const Findings& findings) {
  std::vector<std::string> lines;
  for (const Finding& finding : findings.all()) {
    lines.push_back(
        fmt::format("{}:{} {}", finding.place.line, finding.place.column, finding.code));
  }
  return lines;
}

inline std::vector<std::string> told(const std::string& text) {
  return told(check_text(text, nullptr));
}

}  // namespace lbctl
