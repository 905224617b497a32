// From interface states to the routing daemon's static routes.
#pragma once

#include <map>
#include <string>
#include <utility>

#include "config/lb_config.h"
#include "config/worker_context.h"
#include "platform/mutex.h"
#include "routing/route_keeper.h"

// One instance serves every worker. Its only data are the routes that "keep-last-routes" keeps.
class LBDecision {
 public:
  // Builds the routes of the worker's VRF and family. When their text differs from the one written
  // last: writes the routing daemon's file, sends the daemon SIGHUP and flushes the kernel's route
  // cache. Runs shell commands in the calling thread's network namespace.
  void run(LBConfig& config, const LBWorkerContext& worker);

 private:
  // The keeper of the worker's VRF and family.
  RouteKeeper& keeper_of(const LBWorkerContext& worker) LB_EXCLUDES(mutex_);

  Mutex mutex_;
  std::map<std::pair<std::string, bool>, RouteKeeper> keepers_ LB_GUARDED_BY(mutex_);
};
