// `lbctl routes`: what the daemon would write for its routing daemon.
#include <memory>

#include "lbctl/command.h"
#include "lbctl/routes_request.h"

namespace lbctl {

void add_routes_command(CLI::App& program, Action& action) {
  const auto request = std::make_shared<RoutesRequest>();
  const CommandLine command(
      program, "routes",
      "Prints the exact bytes that the daemon would write for its routing daemon, by default with "
      "every interface active. Exit status: 0; 1 when --diff finds a difference or bird refuses "
      "the routes; 2 for a name that the configuration does not have; 3 for what cannot be read.",
      "lbctl routes /etc/wan_lb/lb.conf --down wan1 --diff");
  command.value("FILE", request->configuration, "the daemon's configuration").required();
  const Option only_ipv4 = command.flag("-4", request->ipv4, "the IPv4 file only, bare");
  const Option only_ipv6 = command.flag("-6", request->ipv6, "the IPv6 file only, bare");
  only_ipv4.excludes({only_ipv6});
  command.value("--vrf", request->vrf, "the VRF whose files are wanted").shows_default();
  const auto add_names = [&](const char* option, std::vector<std::string>& names,
                             const char* description) {
    return command.values(option, names, description)
        .comma_separated()
        .one_value()
        .value_name("NAME,...");
  };
  const Option down = add_names("--down", request->down,
                                "these interfaces are down, all others up; wan1 is the IPv4 "
                                "interface, wan1/6 the IPv6 one");
  const Option up = add_names("--up", request->up, "these interfaces are up, all others down");
  const Option each = command.flag(
      "--each", request->each,
      "a table: the routes with all interfaces up, and what changes with each one down");
  command
      .values("--nexthop", request->nexthops,
              "the next hop that is found for an interface (\"-\": none); otherwise the "
              "leases, tunnels and kernel routes of this machine are asked; may be repeated")
      .one_value()
      .value_name("NAME=ADDRESS");
  const Option difference =
      command.flag("--diff", request->difference,
                   "the unified difference from the file in force to these routes instead");
  const Option bird = command.flag("--check-bird", request->asks_bird,
                                   "has BIRD 2 parse the routes (bird -p), without using them");
  down.excludes({up, each});
  up.excludes({each});
  each.excludes({difference, bird});
  command.runs(action, [request] { return run_routes(*request); });
}

}  // namespace lbctl
