// From interface states to the routing daemon's file: 1,000 rules of 8 members and 16 targets.
#include <utility>

#include "routing/static_routes.h"
#include "support/models.h"
#include "support/subject.h"

namespace {

RouterSize large(std::string options, bool failover = false) {
  return {.interfaces = 8,
          .tests = 1,
          .rules = 1000,
          .members = 8,
          .targets = 16,
          .failover = failover,
          .options = std::move(options)};
}

LBWorkerContext worker_of(LBDaemon& daemon) {
  LBWorkerContext worker;
  worker.daemon = &daemon;
  worker.vrf = kDefaultNamespace;
  return worker;
}

// The decision as a cycle has it; nothing has changed since the last one.
Work unchanged(const RouterSize& size) {
  return [daemon = make_router(size)] {
    daemon->decision().run(daemon->config(), worker_of(*daemon));
  };
}

// Two decisions: an interface is lost and comes back, and the file is written anew both times.
Work lost_and_found(const RouterSize& size) {
  return [daemon = make_router(size)] {
    for (const bool active : {false, true}) {
      LBInterface& interface = daemon->config().interfaces.at("wan3");
      {
        MutexLock lock(interface.mutex);
        interface.state.active = active;
      }
      daemon->decision().run(daemon->config(), worker_of(*daemon));
    }
  };
}

// A start: what the run before left is read, and given to the rules.
Work taken_over(const RouterSize& size) {
  return [daemon = make_router(size)] {
    LBDecision fresh;
    fresh.run(daemon->config(), worker_of(*daemon));
  };
}

const Registration kUnchanged("route_decision/unchanged", [] { return unchanged(large("")); });
const Registration kUnchangedBird2("route_decision/unchanged, bird2",
                                   [] { return unchanged(large("routing-daemon bird2\n")); });
const Registration kUnchangedFailover("route_decision/unchanged, failover",
                                      [] { return unchanged(large("", true)); });
const Registration kKept("route_decision/unchanged, last routes kept",
                         [] { return unchanged(large("keep-last-routes\n")); });
const Registration kChanged("route_decision/lost and found",
                            [] { return lost_and_found(large("")); });
const Registration kChangedBird2("route_decision/lost and found, bird2",
                                 [] { return lost_and_found(large("routing-daemon bird2\n")); });
const Registration kTakenOver("route_decision/start, last routes kept", [] {
  return taken_over(large("routing-daemon bird2\nkeep-last-routes\n"));
});

}  // namespace
