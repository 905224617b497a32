#include "lbctl/routes_file.h"

#include <algorithm>
#include <cerrno>
#include <cstring>

#include <fmt/format.h>

#include "config/worker_context.h"
#include "lbctl/assumed_state.h"
#include "lbctl/command.h"
#include "lbctl/readable_log.h"
#include "platform/places.h"
#include "platform/regular_file.h"
#include "routing/route_keeper.h"
#include "routing/route_syntax.h"

namespace lbctl {

namespace {

constexpr size_t kMostBytes = size_t{64} << 20;

// The plan that holds where a rule without routes keeps its last ones: those with every interface
// active.
RoutePlan kept_plan(const LBConfig& config, const LBWorkerContext& worker,
                    const RouteSyntax& syntax) {
  LBConfig before;
  before.replace(config);
  assume_all(before, true);
  RouteKeeper keeper;
  keeper.keep(plan_static_routes(before, worker.ipv6, worker.vrf, syntax), {}, before, worker,
              syntax);
  take_log_messages();  // of a state that nobody asked about
  RoutePlan plan = plan_static_routes(config, worker.ipv6, worker.vrf, syntax);
  return keeper.keep(std::move(plan), {}, config, worker, syntax).plan;
}

const char* what_is_missing(const LBConfig& config, const std::string& vrf, bool ipv6) {
  const InterfaceMap& interfaces = config.interfaces_of(ipv6);
  const bool has_interface =
      std::any_of(interfaces.begin(), interfaces.end(),
                  [&](const auto& entry) { return entry.second.vrf == vrf; });
  return has_interface ? "rule" : "interface";
}

}  // namespace

bool is_served(const LBConfig& config, const std::string& vrf, bool ipv6) {
  const InterfaceMap& interfaces = config.interfaces_of(ipv6);
  return std::any_of(interfaces.begin(), interfaces.end(),
                     [&](const auto& entry) { return entry.second.vrf == vrf; }) &&
         std::any_of(config.rules.begin(), config.rules.end(), [&](const auto& entry) {
           return entry.second.vrf == vrf && is_ipv4_rule(entry.first) != ipv6;
         });
}

RouteFile make_route_file(const LBConfig& config, const std::string& vrf, bool ipv6) {
  RouteFile file;
  file.path = route_file_path(vrf, ipv6);
  file.ipv6 = ipv6;
  file.served = is_served(config, vrf, ipv6);
  if (!file.served) {
    file.remarks.push_back(fmt::format(
        "{} is not written: VRF {} has no IPv{} {}, so the daemon does not serve the family there",
        file.path, vrf, ipv6 ? 6 : 4, what_is_missing(config, vrf, ipv6)));
    return file;
  }
  const RouteSyntax& syntax = route_syntax(*config.options);
  LBWorkerContext worker;
  worker.ipv6 = ipv6;
  worker.vrf = vrf;
  take_log_messages();
  file.plan = config.options->keeps_last_routes ? kept_plan(config, worker, syntax)
                                                : plan_static_routes(config, ipv6, vrf, syntax);
  file.remarks = readable(take_log_messages());
  file.text = protocol_static_text(write_static_routes(file.plan, syntax).body, ipv6);
  return file;
}

FileInForce read_route_file(const std::string& path) {
  const FileDescriptor file = open_to_read(path);
  if (!file.valid() && errno == ENOENT) return {};
  if (!file.valid()) throw unreadable(fmt::format("{}: {}", path, std::strerror(errno)));
  if (!is_regular_file(file)) throw unreadable(path + ": not a regular file");
  return {true, read_up_to(file, kMostBytes)};
}

}  // namespace lbctl
