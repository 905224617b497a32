#include "tests/link/watched_targets.h"

void WatchedTargets::watch(const std::string& address, const std::string& ifname) {
  MutexLock lock(mutex_);
  const auto [entry, added] = _targets.try_emplace({address, ifname}, true);
  if (added || entry->second) return;
  entry->second = true;
  --unwatched_;
}

bool WatchedTargets::is_watched(const std::string& address, const std::string& ifname) {
  MutexLock lock(mutex_);
  const auto found = _targets.find({address, ifname});
  if (found != _targets.end()) return found->second;
  if (unwatched_ < kMostUnwatched) {
    _targets.emplace(Target{address, ifname}, false);
    ++unwatched_;
  }
  return false;
}

WatchedTargets::Map WatchedTargets::snapshot() const {
  MutexLock lock(mutex_);
  return _targets;
}
