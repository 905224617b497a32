// A lock that makes no library call, so that faults of the pthread calls cannot reach the support
// code itself.
#pragma once

#include <sched.h>

#include <atomic>

class SpinLock {
 public:
  void lock() {
    while (locked_.exchange(true, std::memory_order_acquire)) sched_yield();
  }
  void unlock() { locked_.store(false, std::memory_order_release); }

 private:
  std::atomic<bool> locked_{false};
};

class SpinLockHolder {
 public:
  explicit SpinLockHolder(SpinLock& lock) : lock_(lock) { lock_.lock(); }
  ~SpinLockHolder() { lock_.unlock(); }
  SpinLockHolder(const SpinLockHolder&) = delete;
  SpinLockHolder& operator=(const SpinLockHolder&) = delete;

 private:
  SpinLock& lock_;
};
