// A worker's cycle without its probes.
#include "core/check_cycle.h"

#include "support/models.h"
#include "support/subject.h"

namespace {

struct Worker {
  explicit Worker(const RouterSize& size) : daemon(make_router(size)) {
    context.daemon = daemon.get();
    context.vrf = kDefaultNamespace;
  }

  std::shared_ptr<LBDaemon> daemon;
  LBWorkerContext context;
  CheckCycle cycle{context};
};

const Registration kIdle("check_cycle/no interface", [] {
  return [worker = std::make_shared<Worker>(RouterSize{})] { worker->cycle.run_once(); };
});

}  // namespace
