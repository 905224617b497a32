// The addresses that a prober waits for.
#pragma once

#include <cstddef>
#include <map>
#include <string>

#include "platform/mutex.h"

// The addresses whose answers are wanted, each with the interface it is reached by. Entries are
// never removed. Shared by the worker and the receiver; any thread.
class WatchedTargets {
 public:
  using Map = std::map<std::string, std::string>;

  // Of addresses that nobody watches, at most this many are noted: whoever is on the wire can send
  // answers from any number of addresses, and must not be able to spend the memory.
  static constexpr size_t kMostUnwatched = 256;

  void watch(const std::string& target, const std::string& ifname) LB_EXCLUDES(mutex_);

  // The interface of `address`; empty for one that is not watched, which gains an entry with an
  // empty name while there are fewer than kMostUnwatched of them.
  std::string interface_of(const std::string& address) LB_EXCLUDES(mutex_);

  Map snapshot() const LB_EXCLUDES(mutex_);

 private:
  mutable Mutex mutex_;
  Map _targets LB_GUARDED_BY(mutex_);
  size_t unwatched_ LB_GUARDED_BY(mutex_) = 0;  // entries with an empty name
};
