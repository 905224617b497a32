#include "core/vrf_thread.h"

#include <memory>

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

template <class Family>
struct WorkerTraits;

template <>
struct WorkerTraits<Ipv4> {
  using Prober = LBArp;
  static void attach(LBWorkerContext& context, LBArp* prober) { context.arp = prober; }
  static void log_no_thread(const char* vrf) {
    LB_WARNING("Can't create new thread for IPv4 VRF %s", vrf);
  }
};

template <>
struct WorkerTraits<Ipv6> {
  using Prober = LBNeighbor;
  static void attach(LBWorkerContext& context, LBNeighbor* prober) { context.neighbor = prober; }
  static void log_no_thread(const char* vrf) {
    LB_WARNING("Can't create new thread for IPv6 VRF %s", vrf);
  }
};

void* worker_thread(void* argument) {
  run_worker(*static_cast<LBWorkerContext*>(argument));
  return nullptr;
}

// A worker with its prober; both live until the thread was joined.
template <class Family>
class Worker {
 public:
  void start(LBDaemon& daemon, const std::string& vrf) {
    prober_ = std::make_unique<typename WorkerTraits<Family>::Prober>();
    prober_->init(vrf);
    context_.daemon = &daemon;
    context_.ipv6 = Family::kIpv6 ? 1 : 0;
    context_.vrf = vrf;
    WorkerTraits<Family>::attach(context_, prober_.get());
    started_ = pthread_create(&thread_, nullptr, worker_thread, &context_) == 0;
    if (!started_) WorkerTraits<Family>::log_no_thread(vrf.c_str());
  }

  void join() {
    if (started_) pthread_join(thread_, nullptr);
    prober_.reset();
  }

 private:
  std::unique_ptr<typename WorkerTraits<Family>::Prober> prober_;
  LBWorkerContext context_;
  pthread_t thread_{};
  bool started_ = false;
};

template <class Family>
bool is_served(const LBDaemon& daemon, const std::string& vrf) {
  const VrfPresence presence = daemon.presence(vrf, Family::kIpv6);
  return presence.has_interfaces && presence.has_rules;
}

void run_vrf(LBDaemon& daemon, const std::string& vrf) {
  if (vrf != kDefaultNamespace && lh_netns_set(vrf.c_str()) == -1) return;
  Worker<Ipv4> worker;
  Worker<Ipv6> worker6;
  if (is_served<Ipv4>(daemon, vrf)) worker.start(daemon, vrf);
  if (is_served<Ipv6>(daemon, vrf)) worker6.start(daemon, vrf);
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
