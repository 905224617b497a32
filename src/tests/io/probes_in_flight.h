// The probes that wait for their replies: one table per family, shared by all tests of the process.
//
// Workers enter and remove probes, receiver threads mark them answered. The table has its own lock;
// the interface's mutex (interface_sockets.h) is held as well where a probe is entered, marked
// answered and settled.
#pragma once

#include <cstdint>
#include <ctime>
#include <functional>
#include <map>
#include <optional>
#include <set>
#include <string>
#include <string_view>
#include <tuple>

#include "packets/family.h"
#include "platform/mutex.h"

inline constexpr int32_t kProbeWaiting = -2;
inline constexpr int32_t kProbeAnswered = 0;

// Keys run from 0 to this.
inline constexpr int32_t kLargestProbeKey = 32766;

struct PendingProbe {
  std::string ifname;  // Linux name of the interface that the probe left by
  int32_t state = kProbeWaiting;
  timespec sent_at{};  // monotonic, when it was entered: from then on its reply is waited for
  std::string target;
};

// The time in milliseconds, cut.
int64_t whole_milliseconds(const timespec& time);

// Milliseconds from `from` to `to`, each first cut to whole milliseconds.
int64_t elapsed_milliseconds(const timespec& from, const timespec& to);

class ProbesInFlight {
 public:
  struct Entry {
    int32_t key;
    PendingProbe probe;
  };

  // Draws the next probe key: 1 to 32766, then 0, and again.
  int32_t next_key();

  // Enters a probe; a record that already has this key is kept and the new one dropped.
  void insert(int32_t key, const PendingProbe& probe);

  // Marks the probe as answered, if `answers` is nothing or true of it; an unknown key changes
  // nothing. `answers` is called under the table's lock.
  void mark_answered(int64_t key,
                     const std::function<bool(const PendingProbe&)>& answers = nullptr);

  void erase(int32_t key);

  // A copy of the first probe, in key order, to this target through this interface.
  std::optional<Entry> find(const std::string& ifname, const std::string& target) const;

  size_t size() const;

 private:
  // Interface, target and key; the parts of an entry are those of the probe in pending_.
  using Destination = std::tuple<std::string_view, std::string_view, int32_t>;

  static Destination destination_of(int32_t key, const PendingProbe& probe);

  mutable Mutex mutex_;
  std::map<int32_t, PendingProbe> pending_ LB_GUARDED_BY(mutex_);
  std::set<Destination> by_destination_ LB_GUARDED_BY(mutex_);
  int32_t sequence_ LB_GUARDED_BY(mutex_) = 0;
};

// The family's table. Any thread.
ProbesInFlight& probes_in_flight(const Family& family);
