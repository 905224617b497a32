// The status report and the dumps of 1,000 interfaces with three tests each.
#include "output/lb_output.h"
#include "platform/clock.h"
#include "support/models.h"
#include "support/subject.h"

namespace {

std::shared_ptr<LBDaemon> large_router() {
  return make_router(
      {.interfaces = 1000, .tests = 3, .rules = 64, .members = 8, .targets = 16, .failover = true});
}

void write(LBDaemon& daemon) {
  LBWorkerContext worker;
  worker.daemon = &daemon;
  worker.vrf = kDefaultNamespace;
  daemon.output().write(daemon.config(), worker);
}

// What a cycle writes.
const Registration kAll("output/report and dumps",
                        [] { return [daemon = large_router()] { write(*daemon); }; });

const Registration kOutbounds("output/interface dump", [] {
  const auto daemon = large_router();
  write(*daemon);  // makes the directory
  return [daemon] {
    daemon->output().dump_outbounds(wall_now(), &daemon->config().interfaces, false);
  };
});

const Registration kRules("output/rule and route dump", [] {
  const auto daemon = large_router();
  write(*daemon);
  return [daemon] {
    daemon->output().dump_rules_and_routes(daemon->config().rules, &daemon->config());
  };
});

}  // namespace
