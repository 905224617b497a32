#include "lbctl/explain_neighbor.h"

#include <linux/neighbour.h>

#include <fmt/format.h>

namespace lbctl {

namespace {

const char* name_of(uint16_t state) {
  if ((state & NUD_REACHABLE) != 0) return "reachable";
  if ((state & NUD_STALE) != 0) return "stale";
  if ((state & NUD_DELAY) != 0) return "delayed";
  if ((state & NUD_PROBE) != 0) return "being verified";
  if ((state & NUD_PERMANENT) != 0) return "permanent";
  return "without resolution";
}

}  // namespace

void explain_neighbor(const Situation& situation, const InterfaceDump& interface,
                      const std::string& device, Explanation& explanation) {
  const std::string& nexthop = interface.nexthop;
  if (nexthop.empty()) return;
  const auto state = situation.machine.neighbor(interface.vrf, interface.ipv6, device, nexthop);
  const char* const protocol = interface.ipv6 ? "neighbour solicitations" : "ARP requests";
  const std::string look = fmt::format(
      "See whether the gateway is on that link: {}; check cable, VLAN, and the next hop's address.",
      command_in(interface.vrf,
                 fmt::format("ip -{} neigh show dev {}", interface.ipv6 ? 6 : 4, device)));
  if (!state) {
    explanation.add(
        fmt::format("The kernel did not say what it knows of the next hop {}.", nexthop));
  } else if ((*state & (NUD_FAILED | NUD_INCOMPLETE)) != 0) {
    explanation.add(fmt::format("Nobody on {} answers {} for the next hop {} (the kernel's "
                                "neighbour entry is {}).",
                                device, protocol, nexthop,
                                (*state & NUD_FAILED) != 0 ? "failed" : "incomplete"),
                    look);
  } else if (*state == 0) {
    explanation.add(fmt::format("The kernel has no neighbour entry for the next hop {} on {}: {} "
                                "get no answer.",
                                nexthop, device, protocol),
                    look);
  } else if ((*state & (NUD_STALE | NUD_DELAY | NUD_PROBE)) != 0) {
    explanation.add(
        fmt::format("The next hop {} was known on {}, but the kernel has not confirmed it lately "
                    "(neighbour entry {}).",
                    nexthop, device, name_of(*state)));
  } else {
    explanation.add(
        fmt::format("The next hop {} is known on {} (neighbour entry {}): what does not answer is "
                    "behind it, or refuses echo requests.",
                    nexthop, device, name_of(*state)));
  }
}

}  // namespace lbctl
