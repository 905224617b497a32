// `lbctl routes`: what the daemon would write for its routing daemon.
#include <memory>

#include <CLI/CLI.hpp>

#include "lbctl/command.h"
#include "lbctl/routes_request.h"

namespace lbctl {

void add_routes_command(CLI::App& program, Action& action) {
  const auto request = std::make_shared<RoutesRequest>();
  CLI::App* const command = add_command(
      program, "routes",
      "Prints the exact bytes that the daemon would write for its routing daemon, by default with "
      "every interface active. Exit status: 0; 1 when --diff finds a difference or bird refuses "
      "the routes; 2 for a name that the configuration does not have; 3 for what cannot be read.",
      "lbctl routes /etc/wan_lb/lb.conf --down wan1 --diff");
  command->add_option("FILE", request->configuration, "the daemon's configuration")->required();
  auto* const only_ipv4 = command->add_flag("-4", request->ipv4, "the IPv4 file only, bare");
  auto* const only_ipv6 = command->add_flag("-6", request->ipv6, "the IPv6 file only, bare");
  only_ipv4->excludes(only_ipv6);
  command->add_option("--vrf", request->vrf, "the VRF whose files are wanted")
      ->capture_default_str();
  const auto add_names = [&](const char* option, std::vector<std::string>& names,
                             const char* description) {
    return command->add_option(option, names, description)
        ->delimiter(',')
        ->allow_extra_args(false)
        ->type_name("NAME,...");
  };
  auto* const down = add_names("--down", request->down,
                               "these interfaces are down, all others up; wan1 is the IPv4 "
                               "interface, wan1/6 the IPv6 one");
  auto* const up = add_names("--up", request->up, "these interfaces are up, all others down");
  auto* const each = command->add_flag(
      "--each", request->each,
      "a table: the routes with all interfaces up, and what changes with each one down");
  command
      ->add_option("--nexthop", request->nexthops,
                   "the next hop that is found for an interface (\"-\": none); otherwise the "
                   "leases, tunnels and kernel routes of this machine are asked; may be repeated")
      ->allow_extra_args(false)
      ->type_name("NAME=ADDRESS");
  auto* const difference =
      command->add_flag("--diff", request->difference,
                        "the unified difference from the file in force to these routes instead");
  auto* const bird = command->add_flag("--check-bird", request->asks_bird,
                                       "has BIRD 2 parse the routes (bird -p), without using them");
  down->excludes(up)->excludes(each);
  up->excludes(each);
  each->excludes(difference)->excludes(bird);
  command->callback([&action, request] { action = [request] { return run_routes(*request); }; });
}

}  // namespace lbctl
