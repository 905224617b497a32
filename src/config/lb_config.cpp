#include "config/lb_config.h"

InterfaceState LBInterface::snapshot() const {
  MutexLock lock(mutex);
  return state;
}

std::string LBInterface::gateway() const {
  if (!discovers_nexthop()) return nexthop;
  MutexLock lock(mutex);
  return state.nexthop_address;
}

void LBConfig::replace(const LBConfig& other) {
  if (this == &other) return;
  rules = other.rules;
  options = other.options;
  interfaces.clear();
  interfaces.insert(other.interfaces.begin(), other.interfaces.end());
  interfaces6.clear();
  interfaces6.insert(other.interfaces6.begin(), other.interfaces6.end());

  WrittenState other_written = other.copy_written();
  MutexLock lock(written_mutex);
  written = std::move(other_written);
}

WrittenState LBConfig::copy_written() const {
  MutexLock lock(written_mutex);
  return written;
}
