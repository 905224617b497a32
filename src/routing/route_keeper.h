// "keep-last-routes": a family is never left without routes by failures alone.
//
// A rule that gives no route keeps those that it had last, until it gives one again. After a start
// the file of the run before is what the rules had last, and it stays in force until every
// interface that it names has settled, so that a restart changes no route of a healthy link.
#pragma once

#include <ctime>
#include <map>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "config/lb_config.h"
#include "config/worker_context.h"
#include "routing/route_syntax.h"
#include "routing/static_routes.h"

// One per VRF and family; its worker only.
class RouteKeeper {
 public:
  struct Kept {
    RoutePlan plan;
    bool in_force = false;  // the file stays as it is, whatever the plan says
  };

  // False until the first keep().
  bool has_started() const { return started_; }

  // What holds instead of `fresh`, the plan of the present states. `left` are the routes in the
  // routing daemon's file when this is called first; later they are not looked at. Each change from
  // following the interfaces to keeping, or back, is logged.
  Kept keep(RoutePlan fresh, std::vector<StaticRoute> left, const LBConfig& config,
            const LBWorkerContext& worker, const RouteSyntax& syntax);

 private:
  // The routes of the run before, while they are held.
  struct Hold {
    timespec since;
    std::vector<StaticRoute> routes;
  };

  // Gives every route of the file to a rule.
  void take_over(std::vector<StaticRoute> routes, const RoutePlan& rules, const LBConfig& config,
                 const LBWorkerContext& worker, const RouteSyntax& syntax);
  bool is_holding(const LBConfig& config, const LBWorkerContext& worker);

  bool started_ = false;
  std::optional<Hold> hold_;
  std::map<std::string, std::vector<PlannedRoute>> last_;  // by rule
  std::set<std::string> kept_;                             // rules whose last routes stay
};
