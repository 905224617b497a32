#include "lbctl/routes_request.h"

#include <algorithm>
#include <set>

#include <fmt/format.h>

#include "lbctl/assumed_state.h"
#include "lbctl/command.h"
#include "lbctl/configuration.h"
#include "lbctl/discovered_nexthops.h"
#include "lbctl/print.h"
#include "lbctl/readable_log.h"
#include "lbctl/routes_bird.h"
#include "lbctl/routes_each.h"
#include "lbctl/routes_file.h"
#include "lbctl/text_difference.h"

namespace lbctl {

namespace {

std::vector<bool> families_of(const RoutesRequest& request) {
  if (request.ipv4 == request.ipv6) return {false, true};
  return {request.ipv6};
}

void complain_of_reading(const Configuration& configuration) {
  for (const std::string& sentence : readable(configuration.messages)) {
    complain(fmt::format("{}: {}", configuration.path, sentence));
  }
  if (configuration.complete) return;
  complain(
      fmt::format("{}: not read to its end; the daemon uses what was read until there, and so "
                  "does this",
                  configuration.path));
}

// "default" is there by itself, any other VRF by a keyword.
void require_vrf(const Configuration& configuration, const std::string& vrf) {
  if (vrf == kDefaultNamespace || configuration.namespaces.contains(vrf)) return;
  throw usage_error(
      fmt::format("{}: no interface and no rule is in a VRF '{}'", configuration.path, vrf));
}

// A name that has no part in what is asked for is likely a mistake.
void complain_of_strangers(const LBConfig& model, const std::vector<InterfaceName>& named,
                           const RoutesRequest& request) {
  const std::vector<bool> families = families_of(request);
  for (const auto& [name, ipv6] : named) {
    const LBInterface& interface = model.interfaces_of(ipv6).at(name);
    const std::string label = interface_label(name, ipv6);
    if (interface.vrf != request.vrf) {
      complain(fmt::format("{} is in VRF {}: its state changes nothing in VRF {}", label,
                           interface.vrf, request.vrf));
    } else if (std::find(families.begin(), families.end(), ipv6) == families.end()) {
      complain(fmt::format("{} is of the other family: its state changes nothing here", label));
    }
  }
}

void apply_states(LBConfig& model, const RoutesRequest& request) {
  const bool names_up = !request.up.empty();
  const bool only_ipv6 = request.ipv6 && !request.ipv4;
  std::vector<InterfaceName> named;
  for (const std::string& label : names_up ? request.up : request.down) {
    named.push_back(find_interface_name(model, label, only_ipv6));
  }
  assume_all(model, !names_up);
  for (const InterfaceName& interface : named) assume(model, interface, names_up);
  complain_of_strangers(model, named, request);
}

void find_nexthops(LBConfig& model, const RoutesRequest& request) {
  std::vector<AssumedNexthop> given;
  std::set<std::string> labels;
  for (const std::string& text : request.nexthops) {
    given.push_back(parse_assumed_nexthop(model, text, request.ipv6 && !request.ipv4));
    labels.insert(interface_label(given.back().interface.name, given.back().interface.ipv6));
  }
  for (const bool ipv6 : families_of(request)) {
    const auto is_wanted = [&](const LBInterface& interface) {
      return !labels.contains(interface_label(interface.name, ipv6));
    };
    for (const std::string& sentence : discover_nexthops(model, request.vrf, ipv6, is_wanted)) {
      complain(sentence);
    }
  }
  for (const AssumedNexthop& nexthop : given) assume_nexthop(model, nexthop);
}

// True when the file in force is another.
bool print_difference(const RouteFile& file, const RoutesRequest& request) {
  const FileInForce in_force = read_route_file(file.path);
  if (!in_force.exists) complain(file.path + ": not there; taken for empty");
  const std::string difference = unified_difference(
      in_force.text, file.text, file.path, fmt::format("routes of {}", request.configuration));
  print_text(difference);
  return !difference.empty();
}

// True when bird takes the file.
bool is_accepted(const RouteFile& file) {
  const BirdVerdict verdict = ask_bird(file.text, file.path);
  if (!verdict.is_installed) {
    throw unreadable("--check-bird: the program bird is not installed (Debian's package bird2)");
  }
  if (verdict.accepts) return true;
  complain(fmt::format("bird refuses what would be {}:", file.path));
  for (size_t start = 0; start < verdict.words.size();) {
    const size_t end = std::min(verdict.words.find('\n', start), verdict.words.size());
    complain(verdict.words.substr(start, end - start));
    start = end + 1;
  }
  return false;
}

}  // namespace

int run_routes(const RoutesRequest& request) {
  const auto configuration = load_configuration(request.configuration);
  LBConfig& model = configuration->model;
  complain_of_reading(*configuration);
  require_vrf(*configuration, request.vrf);
  apply_states(model, request);
  find_nexthops(model, request);
  const std::vector<bool> families = families_of(request);
  if (request.each) {
    print_text(table_of_each(model, request.vrf, families));
    return kExitOk;
  }
  int status = kExitOk;
  for (const bool ipv6 : families) {
    const RouteFile file = make_route_file(model, request.vrf, ipv6);
    for (const std::string& sentence : file.remarks) complain(sentence);
    if (request.difference) {
      if (file.served && print_difference(file, request)) status = kExitNo;
    } else {
      if (families.size() > 1) print_text(fmt::format("==> {} <==\n", file.path));
      print_text(file.text);
    }
    if (request.asks_bird && !is_accepted(file)) status = kExitNo;
  }
  return status;
}

}  // namespace lbctl
