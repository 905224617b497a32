#include "tests/io/probes_in_flight.h"

namespace {

constexpr int32_t kKeyModulus = kLargestProbeKey + 1;

}  // namespace

int64_t whole_milliseconds(const timespec& time) {
  return static_cast<int64_t>(time.tv_sec) * 1000 + time.tv_nsec / 1000000;
}

int64_t elapsed_milliseconds(const timespec& from, const timespec& to) {
  return whole_milliseconds(to) - whole_milliseconds(from);
}

int32_t ProbesInFlight::next_key() {
  MutexLock lock(mutex_);
  sequence_ = (sequence_ + 1) % kKeyModulus;
  return sequence_;
}

void ProbesInFlight::insert(int32_t key, const PendingProbe& probe) {
  MutexLock lock(mutex_);
  const auto [entered, added] = pending_.try_emplace(key, probe);
  if (added) by_destination_.insert(destination_of(key, entered->second));
}

void ProbesInFlight::mark_answered(int64_t key,
                                   const std::function<bool(const PendingProbe&)>& answers) {
  if (key < 0 || key >= kKeyModulus) return;
  MutexLock lock(mutex_);
  const auto found = pending_.find(static_cast<int32_t>(key));
  if (found == pending_.end() || (answers && !answers(found->second))) return;
  found->second.state = kProbeAnswered;
}

void ProbesInFlight::erase(int32_t key) {
  MutexLock lock(mutex_);
  const auto found = pending_.find(key);
  if (found == pending_.end()) return;
  by_destination_.erase(destination_of(key, found->second));
  pending_.erase(found);
}

std::optional<ProbesInFlight::Entry> ProbesInFlight::find(const std::string& ifname,
                                                          const std::string& target) const {
  MutexLock lock(mutex_);
  const auto first = by_destination_.lower_bound({ifname, target, 0});
  if (first == by_destination_.end()) return std::nullopt;
  const auto& [of_ifname, of_target, key] = *first;
  if (of_ifname != ifname || of_target != target) return std::nullopt;
  return Entry{key, pending_.at(key)};
}

ProbesInFlight::Destination ProbesInFlight::destination_of(int32_t key, const PendingProbe& probe) {
  return {probe.ifname, probe.target, key};
}

size_t ProbesInFlight::size() const {
  MutexLock lock(mutex_);
  return pending_.size();
}

ProbesInFlight& probes_in_flight(const Family& family) {
  // Leaked on purpose: receiver threads are detached and may outlive static destruction.
  static ProbesInFlight& ipv4 = *new ProbesInFlight;
  static ProbesInFlight& ipv6 = *new ProbesInFlight;
  return family.ipv6 ? ipv6 : ipv4;
}
