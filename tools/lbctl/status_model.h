// What `lbctl status` shows, made from the dumps and the kernel's tables.
#pragma once

#include <ctime>

#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "lbctl/dumps.h"
#include "lbctl/families.h"
#include "lbctl/kernel_table.h"

namespace lbctl {

struct RouteStatus {
  RouteDump route;
  std::optional<bool> in_force;  // nothing: the kernel's table may not be read
  std::string used_instead;      // who has put another route there, which is used; else empty
};

struct RuleStatus {
  RuleDump rule;  // its routes are below
  std::vector<RouteStatus> routes;
};

struct Status {
  std::time_t written = 0;  // the newest file
  std::time_t now = 0;
  bool stale = false;
  std::vector<InterfaceDump> interfaces;
  std::vector<RuleStatus> rules;

  int64_t age() const { return now > written ? now - written : 0; }
};

// read_kernel_routes(), or a test's.
using TableReader =
    std::function<std::optional<std::vector<KernelRoute>>(const std::string& vrf, bool ipv6)>;

// Of the wanted families. Each table is read once, and only where a rule has routes.
Status make_status(const Dumps& dumps, const Families& families, std::time_t now,
                   const TableReader& read_table);

// For scripts: 3 when the files are stale, else 1 when an interface is failed, else 0.
int exit_status_of(const Status& status);

}  // namespace lbctl
