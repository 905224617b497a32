#include "tests/link/watched_targets.h"

void WatchedTargets::watch(const std::string& target, const std::string& ifname) {
  MutexLock lock(mutex_);
  const auto [entry, added] = _targets.try_emplace(target);
  if (!added && entry->second.empty()) --unwatched_;
  entry->second = ifname;
  if (ifname.empty()) ++unwatched_;
}

std::string WatchedTargets::interface_of(const std::string& address) {
  MutexLock lock(mutex_);
  const auto found = _targets.find(address);
  if (found != _targets.end()) return found->second;
  if (unwatched_ < kMostUnwatched) {
    _targets.emplace(address, std::string());
    ++unwatched_;
  }
  return {};
}

WatchedTargets::Map WatchedTargets::snapshot() const {
  MutexLock lock(mutex_);
  return _targets;
}
