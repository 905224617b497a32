#include "lbctl/check_machine.h"

#include <algorithm>
#include <set>

#include <fmt/format.h>

#include "lbctl/check_model.h"
#include "lbctl/reverse_path.h"
#include "platform/places.h"

namespace lbctl {

namespace {

constexpr uint32_t kKernelProtocolMetric = 32;  // of BIRD's kernel protocol, where none is set

bool is_default(const std::string& destination) {
  return destination == "0.0.0.0/0" || destination == "::/0";
}

class MachineChecks {
 public:
  MachineChecks(const View& view, const Machine& machine, Findings& findings)
      : view_(view), machine_(machine), findings_(findings) {}

  void run() {
    for (const InterfaceView& interface : view_.interfaces) {
      if (const Setting* const vrf = interface.find("namespace")) check_vrf(*vrf);
      if (!missing_vrfs_.contains(interface.vrf())) check_device(interface);
    }
    for (const RuleView& rule : view_.rules) {
      if (rule.vrf_setting) check_vrf(*rule.vrf_setting);
      if (missing_vrfs_.contains(rule.vrf())) continue;
      check_defaults(rule);
      check_include(rule);
    }
  }

 private:
  void check_vrf(const Setting& setting) {
    const std::string& vrf = setting.value;
    if (vrf.empty() || vrf == kDefaultNamespace || machine_.has_vrf(vrf)) return;
    if (!missing_vrfs_.insert(vrf).second) return;
    findings_.add(setting.place, "no-such-vrf",
                  fmt::format("there is no VRF '{}' on this machine: nothing of it runs", vrf),
                  fmt::format("make it before the daemon starts (ip netns add {})", vrf));
  }

  void check_device(const InterfaceView& interface) {
    const std::string origin = interface.origin();
    const auto facts = machine_.device(interface.vrf(), origin);
    if (!facts) return;
    if (!facts->present) {
      findings_.add(interface.origin_place(), "no-such-device",
                    fmt::format("there is no device '{}' in the VRF '{}': {} stays failed", origin,
                                interface.vrf(), interface.label()),
                    interface.find("origin") == nullptr
                        ? "give the Linux name with 'origin' where it is another one"
                        : "give the name that 'ip link' shows");
      return;
    }
    if (interface.ipv6 && facts->no_arp) {
      findings_.add(interface.place, "raw-ipv6",
                    fmt::format("the device '{}' has no link-layer addresses: an IPv6 test by it "
                                "never succeeds, and {} stays failed",
                                origin, interface.label()),
                    "take the block away, or use a device of the Ethernet kind");
    }
    if (!interface.ipv6 && !view_.options.wire_replies) check_replies(interface);
  }

  void check_replies(const InterfaceView& interface) {
    for (const TestView& test : interface.tests) {
      const Setting* const target = test.find("target");
      if (target == nullptr || kind_of_address(target->value) != AddressKind::kIpv4) continue;
      const auto dropped = dropped_replies(machine_, interface.vrf(), interface.origin(),
                                           interface.value("source_address"), target->value);
      if (!dropped) continue;
      findings_.add(target->place, "rp-filter", "the " + *dropped, kDroppedRepliesMend);
      return;
    }
  }

  void check_defaults(const RuleView& rule) {
    for (const DestinationView& target : rule.destinations) {
      if (!is_default(canonical_destination(target.text, rule.ipv6))) continue;
      const auto routes = machine_.routes(rule.vrf(), rule.ipv6);
      if (!routes) return;
      const uint32_t own = own_metric(target, *routes);
      for (const KernelRoute& route : *routes) {
        if (!is_default(route.destination) || is_routing_daemons(route)) continue;
        if (route.metric > own) continue;
        const std::string device = route.nexthops.empty() ? "" : route.nexthops.front().device;
        findings_.add(target.place, "shadowed-default",
                      fmt::format("another program's default route by '{}' has metric {} and is "
                                  "preferred to the routing daemon's, which has {}",
                                  device, route.metric, own),
                      fmt::format("give it a metric above {}, for example 1024", own));
        return;
      }
    }
  }

  // Once for each file.
  void check_include(const RuleView& rule) {
    const std::string path = route_file_path(rule.vrf(), rule.ipv6);
    if (!looked_for_.insert(path).second) return;
    const std::string without = machine_.bird_configuration_without(rule.vrf(), path);
    if (without.empty()) return;
    findings_.add(
        rule.place, "not-included",
        fmt::format("the routing daemon's configuration {} does not include {}: no route "
                    "of the rule comes into force",
                    without, path),
        fmt::format("add the line include \"{}\"; and have it read that: birdc configure", path));
  }

  // With which the routing daemon has, or will have, the route in the kernel.
  uint32_t own_metric(const DestinationView& target, const std::vector<KernelRoute>& routes) const {
    if (view_.options.bird2_routes && target.metric) {
      return static_cast<uint32_t>(read_number(target.metric->value).value);
    }
    const auto found = std::find_if(routes.begin(), routes.end(), [](const KernelRoute& route) {
      return is_default(route.destination) && is_routing_daemons(route);
    });
    return found == routes.end() ? kKernelProtocolMetric : found->metric;
  }

  const View& view_;
  const Machine& machine_;
  Findings& findings_;
  std::set<std::string> missing_vrfs_;
  std::set<std::string> looked_for_;
};

}  // namespace

void check_machine(const View& view, const Machine& machine, Findings& findings) {
  MachineChecks(view, machine, findings).run();
}

}  // namespace lbctl
