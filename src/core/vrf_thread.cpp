#include "core/vrf_thread.h"

#include <memory>
#include <utility>

#include "config/log.h"
#include "core/check_cycle.h"
#include "core/lb_daemon.h"
#include "platform/netns.h"
#include "tests/link/arp_prober.h"
#include "tests/link/neighbor_prober.h"

namespace {

struct VrfArgument {
  LBDaemon* daemon;
  std::string vrf;
};

void* worker_thread(void* argument) {
  run_worker(*static_cast<LBWorkerContext*>(argument));
  return nullptr;
}

// A worker with its prober; both live until the thread was joined.
class Worker {
 public:
  explicit Worker(const Family& family) : family_(family) {}

  void start(LBDaemon& daemon, const std::string& vrf) {
    context_.daemon = &daemon;
    context_.ipv6 = family_.ipv6;
    context_.vrf = vrf;
    make_prober().init(vrf);
    started_ = pthread_create(&thread_, nullptr, worker_thread, &context_) == 0;
    if (!started_) {
      LB_WARNING("Can't create new thread for IPv%d VRF %s", family_.version, vrf.c_str());
    }
  }

  void join() {
    if (started_) pthread_join(thread_, nullptr);
    prober_.reset();
  }

 private:
  LinkProber& make_prober() {
    if (family_.ipv6) {
      auto prober = std::make_unique<LBNeighbor>();
      context_.neighbor = prober.get();
      prober_ = std::move(prober);
    } else {
      auto prober = std::make_unique<LBArp>();
      context_.arp = prober.get();
      prober_ = std::move(prober);
    }
    return *prober_;
  }

  const Family& family_;
  std::unique_ptr<LinkProber> prober_;
  LBWorkerContext context_;
  pthread_t thread_{};
  bool started_ = false;
};

bool is_served(const LBDaemon& daemon, const std::string& vrf, const Family& family) {
  const VrfPresence presence = daemon.presence(vrf, family.ipv6);
  return presence.has_interfaces && presence.has_rules;
}

void run_vrf(LBDaemon& daemon, const std::string& vrf) {
  if (vrf != kDefaultNamespace && lh_netns_set(vrf.c_str()) == -1) return;
  Worker worker(kIpv4);
  Worker worker6(kIpv6);
  if (is_served(daemon, vrf, kIpv4)) worker.start(daemon, vrf);
  if (is_served(daemon, vrf, kIpv6)) worker6.start(daemon, vrf);
  worker.join();
  worker6.join();
}

void* vrf_thread(void* argument) {
  const std::unique_ptr<VrfArgument> vrf(static_cast<VrfArgument*>(argument));
  run_vrf(*vrf->daemon, vrf->vrf);
  return nullptr;
}

}  // namespace

int start_vrf_thread(LBDaemon& daemon, const std::string& vrf, pthread_t& thread) {
  auto argument = std::make_unique<VrfArgument>(VrfArgument{&daemon, vrf});
  const int result = pthread_create(&thread, nullptr, vrf_thread, argument.get());
  if (result == 0) argument.release();  // NOLINT(bugprone-unused-return-value): the thread owns it
  return result;
}
