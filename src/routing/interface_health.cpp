// Two levels of debouncing: a target's result settles after enough consecutive outcomes, and the
// interface is a pure function of its settled targets. Every change is decided under the
// interface's lock and logged after it is released, so that a slow log never holds up a report.
#include "routing/interface_health.h"

#include <algorithm>

#include "config/log.h"
#include "platform/clock.h"
#include "platform/interface_names.h"

namespace {

constexpr int32_t kFailure = -1;
constexpr int32_t kSettledSuccess = 0;

int32_t wall_seconds() { return static_cast<int32_t>(wall_now().tv_sec); }

const LBInterface* find_interface(const LBConfig& config, const std::string& name, bool ipv6) {
  const InterfaceMap& interfaces = config.interfaces_of(ipv6);
  const auto found = interfaces.find(name);
  return found == interfaces.end() ? nullptr : &found->second;
}

int32_t count_of(const std::map<std::string, int32_t>& counts, const std::string& target) {
  const auto found = counts.find(target);
  return found == counts.end() ? 0 : found->second;
}

// "hold-down": once the interface has failed it stays so until it was found healthy for that long.
// A link that comes and goes then changes the routes once. The wall clock may be set meanwhile.
bool is_held_down(const LBInterface& interface, InterfaceState& state, bool healthy) {
  if (interface.hold_down == 0) return false;
  const timespec now = monotonic_now();
  if (!healthy) {
    if (state.active || state.held_since) state.held_since = now;
    return false;
  }
  if (!state.held_since ||
      milliseconds_between(*state.held_since, now) >= int64_t{interface.hold_down} * 1000) {
    state.held_since.reset();
    return false;
  }
  return true;
}

void log_change(const LBInterface& interface, bool active,
                const std::map<std::string, int32_t>& target_results) {
  const char* version = interface.ipv6 ? "v6" : "";
  const std::string device = device_name(interface.origin);
  for (const auto& [target, result] : target_results) {
    LB_INSTANCE("IP%s interface %s last check target %s %s", version, device.c_str(),
                target.c_str(), result == kSettledSuccess ? "success" : "failure");
  }
  if (active) {
    LB_INSTANCE("IP%s interface %s changed state to active", version, device.c_str());
  } else {
    LB_INSTANCE("IP%s interface %s changed state to inactive", version, device.c_str());
  }
}

}  // namespace

void record_result(LBInterface& interface, int32_t result, const std::string& target) {
  MutexLock lock(interface.mutex);
  int32_t& successes = interface.state.success_counts[target];
  int32_t& failures = interface.state.failure_counts[target];

  // The opposite counter restarts only when a count moves: at its cap a result changes no counter.
  if (result == kFailure) {
    if (failures < interface.failure_ct) {
      ++failures;
      successes = 0;
    }
  } else if (successes < interface.success_ct) {
    ++successes;
    failures = 0;
  }
  if (failures == interface.failure_ct || successes == interface.success_ct) {
    interface.state.target_results[target] = result;
  }
}

void evaluate_state(LBInterface& interface, const LBWorkerContext& worker) {
  if (interface.vrf != worker.vrf) return;

  const int32_t now = wall_seconds();
  bool healthy = false;
  std::map<std::string, int32_t> target_results;
  {
    MutexLock lock(interface.mutex);
    InterfaceState& state = interface.state;
    if (state.target_results.empty()) return;

    const auto settled_success = [](const auto& entry) { return entry.second == kSettledSuccess; };
    const auto begin = state.target_results.begin();
    const auto end = state.target_results.end();
    healthy = interface.check_all ? std::all_of(begin, end, settled_success)
                                  : std::any_of(begin, end, settled_success);
    (healthy ? state.last_success : state.last_failure) = now;
    if (is_held_down(interface, state, healthy) || state.active == healthy) return;

    state.active = healthy;
    state.state_changed = true;
    state.last_state_change = now;
    target_results = state.target_results;
  }
  log_change(interface, healthy, target_results);
}

bool has_settled(const LBInterface& interface) {
  const InterfaceState state = interface.snapshot();
  if (state.active) return true;
  const auto is_settled = [&](const auto& entry) {
    return success_count(state, entry.first) >= interface.success_ct ||
           failure_count(state, entry.first) >= interface.failure_ct;
  };
  return !state.target_results.empty() &&
         std::all_of(state.target_results.begin(), state.target_results.end(), is_settled);
}

void clear_state_changed(LBConfig& config, const LBWorkerContext& worker) {
  for (auto& [name, interface] : config.interfaces_of(worker.ipv6)) {
    MutexLock lock(interface.mutex);
    interface.state.state_changed = false;
  }
}

std::map<std::string, std::string> changed_interfaces(LBConfig& config,
                                                      const LBWorkerContext& worker) {
  std::map<std::string, std::string> changed;
  for (auto& [name, interface] : config.interfaces_of(worker.ipv6)) {
    const int32_t now = wall_seconds();
    const char* text = nullptr;
    {
      MutexLock lock(interface.mutex);
      if (!interface.state.state_changed) continue;
      interface.state.last_state_change = now;
      text = interface.state.active ? "ACTIVE" : "FAILED";
    }
    // The configured name is looked up here, not the Linux name that all other messages use.
    LB_DEBUG("Interface %s has changed state to %s", device_name(name).c_str(), text);
    changed.emplace(name, text);
  }
  return changed;
}

bool interface_active(const LBConfig& config, const std::string& name, bool ipv6) {
  const LBInterface* interface = find_interface(config, name, ipv6);
  if (interface == nullptr) return false;
  MutexLock lock(interface->mutex);
  return interface->state.active;
}

std::string interface_vrf(const LBConfig& config, const std::string& name, bool ipv6) {
  const LBInterface* interface = find_interface(config, name, ipv6);
  return interface == nullptr ? kDefaultNamespace : interface->vrf;
}

std::string interface_origin(const LBConfig& config, const std::string& name, bool ipv6) {
  const LBInterface* interface = find_interface(config, name, ipv6);
  return interface == nullptr ? std::string() : interface->origin;
}

int32_t success_count(const InterfaceState& state, const std::string& target) {
  return count_of(state.success_counts, target);
}

int32_t failure_count(const InterfaceState& state, const std::string& target) {
  return count_of(state.failure_counts, target);
}

std::string device_name(const std::string& linux_name) {
  const char* name = interfaces_linux_to_zel_name_static(linux_name.c_str(), 0);
  return name == nullptr || *name == '\0' ? "unknown interface" : name;
}
