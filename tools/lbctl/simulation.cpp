#include "lbctl/simulation.h"

#include <algorithm>
#include <tuple>

#include <fmt/format.h>

#include "lbctl/command.h"
#include "lbctl/platform/recorded_log.h"
#include "lbctl/print.h"
#include "routing/interface_health.h"
#include "routing/route_syntax.h"
#include "routing/static_routes.h"

namespace lbctl {

namespace {

constexpr size_t kMostSubjects = 100'000;  // a trace may write the same in many ways

}  // namespace

struct Simulation::Watched {
  LBInterface& interface;
  Domain& domain;
  std::vector<std::shared_ptr<TraceTest>> tests{};
  bool has_news = false;
  bool was_active = false;
  bool is_held = false;  // a hold-down has begun, and may end without news
};

struct Simulation::Subject {
  Watched& watched;
  TraceTest* test;        // the first of the target
  TraceTest* burst_test;  // the first with bursts; null: none
  std::string target;
};

struct Simulation::Domain {
  LBWorkerContext worker;
  bool is_served = false;  // else the daemon has no worker for it
  bool is_due = false;
  bool routes_may_change = true;
  std::vector<Watched*> news{};
  std::vector<Watched*> held{};
  RouteKeeper keeper{};
  std::string body{};
};

Simulation::Simulation(LBConfig& config, SimulationObserver& observer)
    : config_(config), observer_(observer), wants_outcomes_(observer.wants_outcomes()) {
  keep_log_messages(false);
  for (const bool ipv6 : {false, true}) add_interfaces(config, ipv6);
  for (const auto& [name, rule] : config.rules) {
    const auto domain = domains_.find({rule.vrf, !is_ipv4_rule(name)});
    if (domain != domains_.end()) domain->second->is_served = true;
  }
  for (const auto& watched : watched_) mark(*watched);
}

Simulation::~Simulation() { keep_log_messages(true); }

void Simulation::add_interfaces(LBConfig& config, bool ipv6) {
  for (auto& [name, interface] : config.interfaces_of(ipv6)) {
    auto& domain = domains_[{interface.vrf, ipv6}];
    if (domain == nullptr) {
      domain = std::make_unique<Domain>();
      domain->worker.ipv6 = ipv6;
      domain->worker.vrf = interface.vrf;
    }
    Watched& watched =
        *watched_.emplace_back(std::make_unique<Watched>(Watched{interface, *domain}));
    for (auto& [index, test] : interface.tests) {
      watched.tests.push_back(std::make_shared<TraceTest>(configured(*test), ipv6));
      test = watched.tests.back();
    }
    for (const auto& test : watched.tests) test->send(interface, domain->worker);
  }
}

Simulation::Watched& Simulation::find_interface(std::string_view label) {
  std::string name;
  bool ipv6 = false;
  parse_interface_label(label, name, ipv6);
  for (const auto& watched : watched_) {
    if (watched->interface.ipv6 == ipv6 && watched->interface.name == name) return *watched;
  }
  throw usage_error(
      fmt::format("the configuration has no IPv{} interface '{}'", ipv6 ? 6 : 4, name));
}

Simulation::Subject& Simulation::find_subject(const TraceLine& line) {
  const auto known = subjects_.find(line.subject);
  if (known != subjects_.end()) return *known->second;

  Watched& watched = find_interface(line.interface);
  Subject subject{watched, nullptr, nullptr, std::string(line.target)};
  bool waits_for_nexthop = false;
  for (const auto& test : watched.tests) {
    const std::string target = test->target();
    waits_for_nexthop = waits_for_nexthop || target.empty();
    if (target.empty() || target != subject.target) continue;
    if (subject.test == nullptr) subject.test = test.get();
    if (subject.burst_test == nullptr && test->is_burst()) subject.burst_test = test.get();
  }
  if (subject.test == nullptr) {
    throw usage_error(fmt::format(
        "the interface '{}' has no test of the target '{}'{}", line.interface, line.target,
        waits_for_nexthop ? ", and no next hop yet that one of its tests could probe" : ""));
  }
  if (subjects_.size() >= kMostSubjects) subjects_.clear();
  const auto added = subjects_.emplace(line.subject, std::make_unique<Subject>(std::move(subject)));
  return *added.first->second;
}

void Simulation::take(const TraceLine& line) {
  if (line.kind == TraceKind::kNothing) return;
  if (!has_begun_) {
    has_begun_ = true;
    first_time_ = last_time_ = line.time;
    cycle_ = line.time / kNanosecondsPerSecond;
    cycle_end_ = cycle_ * kNanosecondsPerSecond;
  }
  if (line.time < last_time_) throw unreadable("the time is before that of an earlier line");
  if (line.time > cycle_end_)
    advance((line.time + kNanosecondsPerSecond - 1) / kNanosecondsPerSecond);
  last_time_ = line.time;
  if (line.kind == TraceKind::kNexthop) {
    take_nexthop(line);
    return;
  }

  Subject& subject = find_subject(line);
  Watched& watched = subject.watched;
  bool is_good = line.is_good;
  if (line.kind == TraceKind::kBurst) {
    if (subject.burst_test == nullptr) {
      throw usage_error(fmt::format("the interface '{}' has no ping_ext test of the target '{}'",
                                    line.interface, line.target));
    }
    is_good = subject.burst_test->judge({line.jitter, line.loss, line.rtt});
  }
  subject.test->take(watched.interface, is_good, subject.target);
  if (!watched.has_news) mark(watched);
  if (wants_outcomes_) observer_.outcome(line.time, watched.interface, is_good);
}

// What a discovery finds is used by the probes from then on: tests of the next hop go over.
void Simulation::take_nexthop(const TraceLine& line) {
  Watched& watched = find_interface(line.interface);
  LBInterface& interface = watched.interface;
  if (!line.address.empty() && !is_trace_address(line.address, interface.ipv6)) {
    throw usage_error(
        fmt::format("the next hop '{}' is no IPv{} address", line.address, interface.ipv6 ? 6 : 4));
  }
  if (!interface.discovers_nexthop()) return;  // the configured one stays
  {
    const MutexLock lock(interface.mutex);
    if (interface.state.nexthop_address == line.address) return;
    interface.state.nexthop_address = line.address;
  }
  for (const auto& test : watched.tests) test->send(interface, watched.domain.worker);
  subjects_.clear();
  watched.domain.routes_may_change = true;
  mark(watched);
}

void Simulation::mark(Watched& watched) {
  Domain& domain = watched.domain;
  if (!watched.has_news) {
    watched.has_news = true;
    domain.news.push_back(&watched);
  }
  if (domain.is_due) return;
  domain.is_due = true;
  due_.push_back(&domain);
}

void Simulation::finish(std::optional<int64_t> until) {
  const int64_t last = until.value_or(cycle_);
  if (last >= cycle_) advance(last + 1);
  end_ = last;
}

// Ends the present cycle and goes to `cycle`. In between only a hold-down can end, or begin anew:
// the daemon looks at a failed interface in every cycle, the last one before `cycle` included.
void Simulation::advance(int64_t cycle) {
  run_cycle(cycle_);
  while (cycle_ < cycle - 1) {
    const int64_t next = next_held_cycle(cycle - 1);
    if (next > cycle - 1) break;
    run_cycle(next);
  }
  cycle_ = cycle;
  cycle_end_ = cycle * kNanosecondsPerSecond;
}

int64_t Simulation::next_held_cycle(int64_t last) const {
  int64_t next = last + 1;
  for (const auto& [key, domain] : domains_) {
    for (const Watched* const watched : domain->held) {
      const MutexLock lock(watched->interface.mutex);
      const auto& since = watched->interface.state.held_since;
      if (!since) continue;
      const bool is_healthy = since->tv_sec < cycle_;  // an unhealthy one is held anew each cycle
      const int64_t due = is_healthy ? since->tv_sec + watched->interface.hold_down : last;
      next = std::min(next, std::max(due, cycle_ + 1));
    }
  }
  return next;
}

void Simulation::run_cycle(int64_t cycle) {
  cycle_ = cycle;
  time_.set(cycle);
  for (const auto& [key, domain] : domains_) {
    for (Watched* const watched : domain->held) mark(*watched);
  }
  if (due_.empty()) return;
  // In the order of the domains, as far as any order is told: workers run side by side.
  std::sort(due_.begin(), due_.end(), [](const Domain* a, const Domain* b) {
    return std::tie(a->worker.vrf, a->worker.ipv6) < std::tie(b->worker.vrf, b->worker.ipv6);
  });
  for (Domain* const domain : due_) {
    domain->is_due = false;
    std::sort(domain->news.begin(), domain->news.end(), [](const Watched* a, const Watched* b) {
      return a->interface.name < b->interface.name;
    });
    for (Watched* const watched : domain->news) {
      watched->has_news = false;
      if (domain->is_served) evaluate(*watched);
    }
    domain->news.clear();
    if (domain->is_served && domain->routes_may_change) decide(*domain);
  }
  due_.clear();
}

void Simulation::evaluate(Watched& watched) {
  LBInterface& interface = watched.interface;
  Domain& domain = watched.domain;
  evaluate_state(interface, domain.worker);
  bool changed = false;
  bool active = false;
  bool is_held = false;
  {
    const MutexLock lock(interface.mutex);
    changed = std::exchange(interface.state.state_changed, false);
    active = interface.state.active;
    is_held = interface.state.held_since.has_value();
  }
  if (is_held != watched.is_held) {
    watched.is_held = is_held;
    if (is_held) {
      domain.held.push_back(&watched);
    } else {
      std::erase(domain.held, &watched);
    }
  }
  if (!changed || active == watched.was_active) return;
  watched.was_active = active;
  domain.routes_may_change = true;
  observer_.interface_changed(cycle_, interface, active);
}

void Simulation::decide(Domain& domain) {
  domain.routes_may_change = false;
  const LBWorkerContext& worker = domain.worker;
  const RouteSyntax& syntax = route_syntax(*config_.options);
  RoutePlan plan = plan_static_routes(config_, worker.ipv6, worker.vrf, syntax);
  if (config_.options->keeps_last_routes)
    plan = domain.keeper.keep(std::move(plan), {}, config_, worker, syntax).plan;
  std::string body = write_static_routes(plan, syntax).body;
  if (body == domain.body) return;
  domain.body = std::move(body);
  observer_.routes_changed(cycle_, worker.vrf, worker.ipv6, domain.body);
}

}  // namespace lbctl
