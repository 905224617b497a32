// From what keeps an interface from being probed at all, over its device and its next hop, to what
// its probes found. The first thing that can be mended is the next step.
#include "lbctl/explain_interface.h"

#include <fmt/format.h>

#include "config/health_test.h"
#include "lbctl/discovered_nexthops.h"
#include "lbctl/explain_neighbor.h"
#include "lbctl/explain_tests.h"
#include "lbctl/print.h"
#include "lbctl/reverse_path.h"
#include "platform/places.h"

namespace lbctl {

namespace {

int version_of(const InterfaceDump& interface) { return interface.ipv6 ? 6 : 4; }

std::string headline_of(const InterfaceDump& interface) {
  const std::string age =
      interface.was_looked_at() ? fmt::format(" for {}", span(interface.change_age)) : "";
  return fmt::format("{} is {}{}{}.", interface_label(interface.name, interface.ipv6),
                     interface.active ? "ACTIVE" : "FAILED", age, in_vrf(interface.vrf));
}

// True when nobody probes the interface.
bool explain_unserved(const Situation& situation, const InterfaceDump& interface,
                      Explanation& explanation) {
  if (!situation.has_rules(interface.vrf, interface.ipv6)) {
    explanation.add(
        fmt::format("It is never probed: VRF {} has no IPv{} rule, and the daemon works only where "
                    "a family has interfaces and rules.",
                    interface.vrf, version_of(interface)),
        fmt::format(
            "Add an IPv{} rule of that VRF (\"rule 1_ipv{} {{\"), or take the interface out "
            "of the health section; then restart the daemon.",
            version_of(interface), version_of(interface)));
    return true;
  }
  if (!situation.machine.has_vrf(interface.vrf)) {
    explanation.add(fmt::format("It is never probed: there is no network namespace {} "
                                "(/var/run/netns/{}).",
                                interface.vrf, interface.vrf),
                    fmt::format("Make it (ip netns add {}), put the device into it and restart the "
                                "daemon.",
                                interface.vrf));
    return true;
  }
  return false;
}

// True when the device cannot carry anything.
bool explain_device(const Situation& situation, const InterfaceDump& interface,
                    const std::string& device, const std::optional<DeviceState>& state,
                    Explanation& explanation) {
  if (!state) {
    const std::string refusal = situation.machine.vrf_refusal(interface.vrf);
    explanation.add(fmt::format("The device {} was not looked at: {}.", device,
                                refusal.empty() ? "the kernel did not say" : refusal));
    return false;
  }
  if (!state->exists) {
    explanation.add(
        fmt::format("There is no device {} in VRF {}.", device, interface.vrf),
        fmt::format("Look for it with \"{}\"; if it has another name, give that as \"origin\".",
                    command_in(interface.vrf, "ip link")));
  } else if (!state->is_up) {
    explanation.add(
        fmt::format("The device {} is down.", device),
        "Bring it up: " + command_in(interface.vrf, fmt::format("ip link set {} up", device)));
  } else if (!state->has_carrier) {
    explanation.add(fmt::format("The device {} is up, but has no carrier.", device),
                    "Check the cable, and whether the modem or switch at its other end is on.");
  } else if (interface.ipv6 && !state->resolves) {
    explanation.add(fmt::format("{} has no link-layer addresses, and IPv6 tests never succeed on "
                                "such a device.",
                                device),
                    "Use the uplink for IPv4, or one with link-layer addresses for IPv6.");
  } else {
    return false;
  }
  return true;
}

std::string lease_fault(const Situation& situation, const LBInterface& known) {
  const std::string place = place_of_nexthop(known);
  const FileLook look = situation.machine.file(place.substr(place.find('/')));
  return look.fault.empty() ? "it names no router that is in force" : look.fault;
}

void explain_missing_nexthop(const Situation& situation, const InterfaceDump& interface,
                             Explanation& explanation) {
  const LBInterface* const known = situation.configured(interface);
  if (known != nullptr && !known->discovers_nexthop()) {
    explanation.add("It has no next hop: the configuration gives none.",
                    "Give it one: \"nexthop ADDRESS\" (or dhcp, tunnel, kernel) in its block.");
  } else if (interface.nexthop_is_dhcp) {
    explanation.add(
        known == nullptr ? "No next hop has been found: it is looked for in a DHCP lease."
                         : fmt::format("No next hop has been found: it is looked for in {} ({}).",
                                       place_of_nexthop(*known), lease_fault(situation, *known)),
        "Check that the DHCP client runs, got a lease with a router, and keeps it in that file.");
  } else if (interface.nexthop_is_tunnel) {
    explanation.add(
        known == nullptr
            ? "No next hop has been found: it is the tunnel's point-to-point peer."
            : fmt::format("No next hop has been found: it is {}.", place_of_nexthop(*known)),
        "Check that the tunnel is there and has a peer address: " +
            command_in(interface.vrf, "ip addr show"));
  } else if (known != nullptr) {
    explanation.add(
        fmt::format("No next hop has been found: it is looked for among {}.",
                    place_of_nexthop(*known)),
        fmt::format(
            "Check that another program than the routing daemon puts a default route there: {}",
            command_in(interface.vrf, fmt::format("ip -{} route show default dev {}",
                                                  version_of(interface), known->origin))));
  } else {
    explanation.add("It has no next hop: none is configured, or the kernel has no default route.",
                    "Name the configuration (-f FILE) to be told where it is looked for.");
  }
}

void explain_foreign_configuration(const Situation& situation, const InterfaceDump& interface,
                                   Explanation& explanation) {
  if (situation.configuration == nullptr || situation.configured(interface) != nullptr) return;
  explanation.add(
      fmt::format("{} has no such interface: the daemon runs with another configuration, or the "
                  "file was changed since it started.",
                  situation.configuration->path),
      "Restart the daemon, or name the file that it runs with (-f FILE).");
}

// The kernel's filter keeps a link failed: while no route leads by it, replies by it are dropped.
void explain_filter(const Situation& situation, const InterfaceDump& interface,
                    const std::string& device, Explanation& explanation) {
  const LBInterface* const known = situation.configured(interface);
  if (known == nullptr || interface.ipv6) return;
  if (situation.configuration->model.options->wire_replies) return;
  for (const TestDump& test : interface.tests) {
    if (test.result != kResultFailure) continue;
    const auto dropped = situation.machine.dropped_replies(interface.vrf, device,
                                                           known->source_address, test.target);
    if (!dropped) continue;
    explanation.add(fmt::format("The {}.", *dropped),
                    fmt::format("Let the replies in: {}.", kDroppedRepliesMend));
    return;
  }
}

void explain_failure(const Situation& situation, const InterfaceDump& interface,
                     Explanation& explanation) {
  if (explain_unserved(situation, interface, explanation)) return;
  explain_foreign_configuration(situation, interface, explanation);
  const std::optional<std::string> device = situation.device_of(interface);
  std::optional<DeviceState> state;
  bool is_dead = false;
  if (device) {
    state = situation.machine.device(interface.vrf, *device);
    is_dead = explain_device(situation, interface, *device, state, explanation);
  } else {
    explanation.add(
        "Its device was not looked at: only the configuration (-f FILE) tells which it "
        "is.");
  }
  if (interface.nexthop.empty()) explain_missing_nexthop(situation, interface, explanation);
  if (explain_tests(situation, interface, explanation) && !is_dead && state) {
    if (state->resolves) explain_neighbor(situation, interface, *device, explanation);
    explain_filter(situation, interface, *device, explanation);
  }
  explain_way_back(situation, interface, explanation);
  if (!explanation.next_step.empty()) return;
  explanation.next_step =
      device ? "Try from the router: " +
                   command_in(interface.vrf, fmt::format("ping -{} -I {} {}", version_of(interface),
                                                         *device, failed_target(interface)))
             : "Try to reach the targets from the router, by that interface.";
}

void explain_success(const Situation& situation, const InterfaceDump& interface,
                     Explanation& explanation) {
  explain_tests(situation, interface, explanation);
  explanation.is_well = !interface.nexthop.empty();
  if (interface.nexthop.empty()) {
    explain_missing_nexthop(situation, interface, explanation);
    explanation.add("It carries no routes as long as it has no next hop.");
  }
  if (explanation.is_well) explanation.next_step = "none, all is well with it.";
}

}  // namespace

Explanation explain_interface(const Situation& situation, const InterfaceDump& interface) {
  Explanation explanation;
  explanation.headline = headline_of(interface);
  if (interface.active) {
    explain_success(situation, interface, explanation);
  } else {
    explain_failure(situation, interface, explanation);
  }
  return explanation;
}

}  // namespace lbctl
