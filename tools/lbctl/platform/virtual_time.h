// The clock contract of a tool: the system's clocks, or a time that a simulation sets.
#pragma once

#include <cstdint>

namespace lbctl {

// While one lives, both clocks stand at the time that it was set to last, sleep_for() moves them
// on, and nothing waits. One at a time; of the calling thread.
class VirtualTime {
 public:
  explicit VirtualTime(int64_t seconds, int64_t nanoseconds = 0);
  ~VirtualTime();
  VirtualTime(const VirtualTime&) = delete;
  VirtualTime& operator=(const VirtualTime&) = delete;

  void set(int64_t seconds, int64_t nanoseconds = 0);
};

}  // namespace lbctl
