#include "core/check_cycle.h"

#include "config/log.h"
#include "core/lb_daemon.h"
#include "platform/clock.h"
#include "platform/netns.h"
#include "routing/interface_health.h"
#include "routing/kernel_routes.h"
#include "routing/nexthop_discovery.h"
#include "tests/link/stale_neighbor.h"

namespace {

template <class Visitor>
void for_each_interface(const LBWorkerContext& worker, bool ipv6, Visitor visit) {
  for (auto& [name, interface] : worker.daemon->config().interfaces_of(ipv6)) {
    if (interface.vrf == worker.vrf) visit(interface);
  }
}

}  // namespace

CheckCycle::CheckCycle(LBWorkerContext& worker) : worker_(worker) {}

void CheckCycle::start() {
  announce_interfaces();
  prepare_tests();
}

void CheckCycle::announce_interfaces() {
  const bool ipv6 = worker_.ipv6;
  for_each_interface(worker_, ipv6, [ipv6](LBInterface& interface) {
    {
      MutexLock lock(interface.mutex);
      interface.state.last_state_change = static_cast<int32_t>(wall_now().tv_sec);
    }
    const std::string device = device_name(interface.origin);
    if (ipv6) {
      LB_INSTANCE("IPv6 interface %s changed state to inactive", device.c_str());
    } else {
      LB_INSTANCE("IP interface %s changed state to inactive", device.c_str());
    }
  });
}

// Both families, whatever the worker's own: the other family's worker may start later, and a test
// is prepared once.
void CheckCycle::prepare_tests() {
  for (const bool ipv6 : {false, true}) {
    for_each_interface(worker_, ipv6, [](LBInterface& interface) {
      for (const auto& [index, test] : interface.tests) test->init(interface);
    });
  }
}

void CheckCycle::run_cycle_tests() {
  const bool ipv6 = worker_.ipv6;
  for_each_interface(worker_, ipv6, [&](LBInterface& interface) {
    for (const auto& [index, test] : interface.tests) test->send(interface, worker_);
  });
  CatchUpBudget catch_up;
  worker_.catch_up = &catch_up;
  // All probes are out before any is judged, so that one slow reply delays no other probe.
  for_each_interface(worker_, ipv6, [&](LBInterface& interface) {
    for (const auto& [index, test] : interface.tests) test->recv(interface, worker_);
    evaluate_state(interface, worker_);
    verify_stale_nexthop(interface, worker_.family());
  });
  worker_.catch_up = nullptr;
}

// A worker cannot leave for a namespace that took its VRF's name: its sockets stay in the old one.
// Without its sign of life the service manager starts the daemon anew.
bool CheckCycle::vrf_is_current() const {
  if (worker_.vrf == kDefaultNamespace || !netns_was_replaced(worker_.vrf.c_str())) return true;
  LB_ERROR("wan_lb: network namespace of VRF %s was replaced, daemon must be restarted",
           worker_.vrf.c_str());
  return false;
}

void CheckCycle::end_cycle() {
  LBConfig& config = worker_.daemon->config();
  clear_state_changed(config, worker_);
  resolve_dhcp_nexthops(config, worker_);
  resolve_tunnel_nexthops(config, worker_);
  resolve_kernel_nexthops(config, worker_);
}

void CheckCycle::run_once() {
  LBDaemon& daemon = *worker_.daemon;
  run_cycle_tests();
  daemon.decision().run(daemon.config(), worker_);
  daemon.output().write(daemon.config(), worker_);
  sleep_for({.tv_sec = 1, .tv_nsec = 0});
  const int alive = vrf_is_current() ? 1 : 0;
  send_and_shift_timeout(daemon.watchdog_timeout(), daemon.watchdog_last(), alive);
  end_cycle();
}

void run_worker(LBWorkerContext& worker) {
  CheckCycle cycle(worker);
  cycle.start();
  while (true) cycle.run_once();
}
