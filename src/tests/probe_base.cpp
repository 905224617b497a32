#include "tests/probe_base.h"

#include <algorithm>
#include <utility>

#include "platform/clock.h"
#include "routing/interface_health.h"
#include "tests/io/probes_in_flight.h"
#include "tests/io/reply_receiver.h"

LBTest::~LBTest() {
  MutexLock lock(status_mutex_);
  if (bound_) close_sockets(family_, ifname_);
}

void LBTest::set_target(const std::string& target) {
  MutexLock lock(status_mutex_);
  target_ = target;
}

void LBTest::set_number(TestKeyword keyword, uint32_t value) {
  if (keyword == TestKeyword::kResponseTime) resp_time_ = static_cast<int32_t>(value);
}

void LBTest::init(LBInterface& interface) {
  // Before the lock, which reports wait for: this opens sockets.
  sockets_of(family_, interface.origin,
             interface.options->wire_replies ? kWireReplies : kRawReplies);
  MutexLock lock(status_mutex_);
  if (bound_) return;
  bound_ = true;
  ifname_ = interface.origin;
  description_ = type_name();
}

void LBTest::recv(LBInterface& interface, const LBWorkerContext& worker) {
  if (worker.ipv6 != family_.ipv6) return;
  ensure_receiver(family_, ifname_);

  const std::string target = report().target;
  const auto find_probe = [&] { return probes_in_flight(family_).find(interface.origin, target); };
  auto entry = find_probe();
  if (!entry) return;

  const auto sockets = this->sockets();
  if (entry->probe.state == kProbeWaiting) {
    const int64_t elapsed = elapsed_milliseconds(entry->probe.sent_at, monotonic_now());
    if (resp_time_ >= elapsed) return;
    CatchUpBudget own;
    let_receivers_catch_up(*sockets,
                           (worker.catch_up != nullptr ? *worker.catch_up : own).milliseconds);
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

  const bool locked = sockets->mutex.lock("recv");
  settle(interface, outcome, target);
  probes_in_flight(family_).erase(entry->key);
  if (locked) sockets->mutex.unlock("recv");
}

std::string LBTest::describe() const {
  const TestReport now = report();
  return "target: " + now.target +
         ", resp_time: " + std::to_string(static_cast<uint32_t>(now.resp_time));
}

std::string LBTest::get_description() const { return report().description; }

TestReport LBTest::report() const {
  MutexLock lock(status_mutex_);
  TestReport now;
  now.target = target_;
  now.description = description_;
  now.result = result_;
  now.resp_time = resp_time_;
  if (now.result != kResultNone) add_measurement(now);
  return now;
}

Destination LBTest::choose_destination(LBInterface& interface) {
  Destination chosen;
  chosen.gateway = interface.gateway();
  bool target_is_gateway = false;
  std::string left;  // the next hop that was the target so far, if it is no more
  {
    MutexLock lock(status_mutex_);
    if (target_.empty()) {
      target_ = chosen.gateway;
      target_is_gateway = pings_nexthop_ = !target_.empty();
    } else if (pings_nexthop_ && interface.follows_nexthop() && !chosen.gateway.empty() &&
               target_ != chosen.gateway) {
      left = std::exchange(target_, chosen.gateway);
    }
    chosen.target = target_;
    description_ = std::string(type_name()) + "\tTarget: " + target_;
  }
  if (target_is_gateway) {
    MutexLock lock(interface.mutex);
    auto& results = interface.state.target_results;
    if (results.empty()) results[chosen.target] = kProbeFailure;
  }
  if (!left.empty()) move_to_nexthop(interface, left, chosen.target);
  return chosen;
}

void LBTest::move_to_nexthop(LBInterface& interface, const std::string& from,
                             const std::string& to) {
  // Another test of the interface may have the address as its configured target, or not have gone
  // over yet.
  const bool is_still_probed =
      std::any_of(interface.tests.begin(), interface.tests.end(),
                  [&](const auto& entry) { return entry.second->report().target == from; });
  if (!is_still_probed) {
    const auto entry = probes_in_flight(family_).find(interface.origin, from);
    if (entry) probes_in_flight(family_).erase(entry->key);
  }

  MutexLock lock(interface.mutex);
  InterfaceState& state = interface.state;
  const bool is_known = state.target_results.contains(to) || state.success_counts.contains(to);
  for (auto* values : {&state.target_results, &state.success_counts, &state.failure_counts}) {
    const auto old = values->find(from);
    if (old == values->end()) continue;
    if (!is_known) (*values)[to] = old->second;
    if (!is_still_probed) values->erase(old);
  }
}

void LBTest::settle(LBInterface& interface, int32_t outcome, const std::string& target) {
  record_result(interface, outcome, target);
  MutexLock lock(status_mutex_);
  result_ = outcome == kProbeSuccess ? kResultSuccess : kResultFailure;
}
