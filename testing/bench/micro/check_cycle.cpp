// A worker's cycle but for the sending and receiving of its probes: every test is answered at once.
#include "core/check_cycle.h"

#include <memory>
#include <string>

#include "routing/interface_health.h"
#include "support/models.h"
#include "support/subject.h"

namespace {

class AnsweredTest : public HealthTest {
 public:
  explicit AnsweredTest(TestReport report) : report_(std::move(report)) {}

  void set_target(const std::string& /*target*/) override {}
  void set_number(TestKeyword /*keyword*/, uint32_t /*value*/) override {}
  void init(LBInterface& /*interface*/) override {}
  void send(LBInterface& /*interface*/, const LBWorkerContext& /*worker*/) override {}
  void recv(LBInterface& interface, const LBWorkerContext& /*worker*/) override {
    record_result(interface, kProbeSuccess, report_.target);
    report_.result = kResultSuccess;
  }
  const char* type_name() const override { return "ping"; }
  TestReport report() const override { return report_; }
  std::string describe() const override { return {}; }
  std::string get_description() const override { return report_.description; }

 private:
  TestReport report_;
};

struct Worker {
  explicit Worker(const RouterSize& size) : daemon(make_router(size)) {
    for (auto& [name, interface] : daemon->config().interfaces) {
      for (auto& [index, test] : interface.tests) {
        test = std::make_shared<AnsweredTest>(test->report());
      }
    }
    context.daemon = daemon.get();
    context.vrf = kDefaultNamespace;
  }

  std::shared_ptr<LBDaemon> daemon;
  LBWorkerContext context;
  CheckCycle cycle{context};
};

Work cycle_of(const RouterSize& size) {
  return [worker = std::make_shared<Worker>(size)] { worker->cycle.run_once(); };
}

const Registration kIdle("check_cycle/no interface", [] { return cycle_of({}); });

const Registration kHealthy("check_cycle/64 interfaces", [] {
  return cycle_of({.interfaces = 64, .tests = 1, .rules = 4, .members = 64, .targets = 4});
});

}  // namespace
