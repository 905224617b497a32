// The check cycle of a worker: probe, settle, decide, report, wait a second, and again.
#pragma once

#include "config/worker_context.h"

// The steps, one by one. All run on the worker's thread, in its network namespace.
class CheckCycle {
 public:
  explicit CheckCycle(LBWorkerContext& worker);

  // Worker start: announces every interface of the worker as inactive, then prepares the tests of
  // both families of its VRF.
  void start();

  // One cycle, with its second of sleep.
  void run_once();

 private:
  void announce_interfaces();
  void prepare_tests();
  void run_cycle_tests();
  bool vrf_is_current() const;
  void end_cycle();

  LBWorkerContext& worker_;
};

// The body of a worker thread; never returns.
void run_worker(LBWorkerContext& worker);
