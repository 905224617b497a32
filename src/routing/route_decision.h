// From interface states to the routing daemon's static routes.
#pragma once

#include "config/lb_config.h"
#include "config/worker_context.h"

// Has no data of its own; one instance serves every worker.
class LBDecision {
 public:
  // Builds the routes of the worker's VRF and family. When their text differs from the one written
  // last: writes the routing daemon's file, sends the daemon SIGHUP and flushes the kernel's route
  // cache. Runs shell commands in the calling thread's network namespace.
  void run(LBConfig& config, const LBWorkerContext& worker);
};
