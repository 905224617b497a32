#include "tests/probe_base.h"

#include "platform/clock.h"
#include "routing/interface_health.h"
#include "tests/io/probes_in_flight.h"
#include "tests/io/reply_receiver.h"

template <class Family>
ProbeTest<Family>::~ProbeTest() {
  MutexLock lock(status_mutex_);
  if (bound_) SocketRegistry<Family>::release(ifname_);
}

template <class Family>
void ProbeTest<Family>::set_target(const std::string& target) {
  MutexLock lock(status_mutex_);
  target_ = target;
}

template <class Family>
void ProbeTest<Family>::set_number(TestKeyword keyword, uint32_t value) {
  if (keyword == TestKeyword::kResponseTime) resp_time_ = static_cast<int32_t>(value);
}

template <class Family>
void ProbeTest<Family>::init(LBInterface& interface) {
  // Before the lock, which reports wait for: this opens sockets.
  SocketRegistry<Family>::acquire(interface.origin);
  MutexLock lock(status_mutex_);
  if (bound_) return;
  bound_ = true;
  ifname_ = interface.origin;
  description_ = type_name();
}

template <class Family>
void ProbeTest<Family>::recv(LBInterface& interface, const LBWorkerContext& worker) {
  if ((worker.ipv6 != 0) != Family::kIpv6) return;
  ensure_receiver<Family>(ifname_);

  const std::string target = report().target;
  const auto find_probe = [&] { return probes_in_flight<Family>().find(interface.origin, target); };
  auto entry = find_probe();
  if (!entry) return;

  const auto sockets = this->sockets();
  if (entry->probe.state == kProbeWaiting) {
    const int64_t elapsed = elapsed_milliseconds(entry->probe.sent_at, monotonic_now());
    if (resp_time_ >= elapsed) return;
    let_receiver_catch_up(*sockets);
    const int32_t key = entry->key;
    entry = find_probe();
    if (!entry || entry->key != key) return;  // a namesake in another VRF was faster
  }
  int32_t outcome = kProbeSuccess;
  if (entry->probe.state == kProbeWaiting) {
    outcome = kProbeFailure;
  } else if (entry->probe.state != kProbeAnswered) {
    return;
  }

  const bool locked = sockets->mutex.template lock<Family>("recv");
  settle(interface, outcome, target);
  probes_in_flight<Family>().erase(entry->key);
  if (locked) sockets->mutex.template unlock<Family>("recv");
}

template <class Family>
std::string ProbeTest<Family>::describe() const {
  const TestReport now = report();
  return "target: " + now.target +
         ", resp_time: " + std::to_string(static_cast<uint32_t>(now.resp_time));
}

template <class Family>
std::string ProbeTest<Family>::get_description() const {
  return report().description;
}

template <class Family>
TestReport ProbeTest<Family>::report() const {
  MutexLock lock(status_mutex_);
  TestReport now;
  now.target = target_;
  now.description = description_;
  now.result = result_;
  now.resp_time = resp_time_;
  return now;
}

template <class Family>
typename ProbeTest<Family>::Destination ProbeTest<Family>::choose_destination(
    LBInterface& interface) {
  Destination chosen;
  chosen.gateway = interface.gateway();
  bool target_is_gateway = false;
  {
    MutexLock lock(status_mutex_);
    if (target_.empty()) {
      target_ = chosen.gateway;
      target_is_gateway = !target_.empty();
    }
    chosen.target = target_;
    description_ = std::string(type_name()) + "\tTarget: " + target_;
  }
  if (target_is_gateway) {
    MutexLock lock(interface.mutex);
    auto& results = interface.state.target_results;
    if (results.empty()) results[chosen.target] = kProbeFailure;
  }
  return chosen;
}

template <class Family>
void ProbeTest<Family>::settle(LBInterface& interface, int32_t outcome, const std::string& target) {
  record_result(interface, outcome, target);
  MutexLock lock(status_mutex_);
  result_ = outcome == kProbeSuccess ? kResultSuccess : kResultFailure;
}

template class ProbeTest<Ipv4>;
template class ProbeTest<Ipv6>;
