// The addresses that a prober waits for.
#pragma once

#include <cstddef>
#include <map>
#include <string>
#include <tuple>

#include "platform/mutex.h"

// The addresses whose answers are wanted, each on the interface it is reached by: uplinks may have
// next hops of the same address. Entries are never removed. Shared by the worker and the receiver;
// any thread.
class WatchedTargets {
 public:
  struct Target {
    std::string address;
    std::string ifname;  // Linux name

    bool operator==(const Target& other) const = default;
    bool operator<(const Target& other) const {
      return std::tie(address, ifname) < std::tie(other.address, other.ifname);
    }
  };
  // True for a target that is watched, false for one that was only noted.
  using Map = std::map<Target, bool>;

  // Of addresses that nobody watches, at most this many are noted: whoever is on the wire can send
  // answers from any number of addresses, and must not be able to spend the memory.
  static constexpr size_t kMostUnwatched = 256;

  void watch(const std::string& address, const std::string& ifname) LB_EXCLUDES(mutex_);

  // Whether answers of `address` by `ifname` are wanted. One that is not is noted while there are
  // fewer than kMostUnwatched of them.
  bool is_watched(const std::string& address, const std::string& ifname) LB_EXCLUDES(mutex_);

  Map snapshot() const LB_EXCLUDES(mutex_);

 private:
  mutable Mutex mutex_;
  Map _targets LB_GUARDED_BY(mutex_);
  size_t unwatched_ LB_GUARDED_BY(mutex_) = 0;  // entries that are only noted
};
