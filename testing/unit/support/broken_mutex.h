// Mutexes of the daemon that fail on demand, each named by its address: others go on to work.
#pragma once

#include <pthread.h>

#include <cerrno>
#include <cstring>
#include <functional>
#include <string>
#include <utility>

#include "support/wrapped_calls.h"

// The last mutex that `work` makes; null when it makes none.
template <class Work>
pthread_mutex_t* mutex_made_by(Work work) {
  pthread_mutex_t* made = nullptr;
  CallHook hook(wrapped::pthread_mutex_init,
                [&](pthread_mutex_t* mutex, const pthread_mutexattr_t* attributes) {
                  made = mutex;
                  return wrapped::pthread_mutex_init.real(mutex, attributes);
                });
  work();
  return made;
}

// Locking `mutex` fails with `rc` and leaves EAGAIN in errno, as long as this lives.
class BrokenLock {
 public:
  BrokenLock(pthread_mutex_t* broken, int rc)
      : hook_(wrapped::pthread_mutex_lock, [=](pthread_mutex_t* mutex) {
          if (mutex != broken) return wrapped::pthread_mutex_lock.real(mutex);
          errno = EAGAIN;
          return rc;
        }) {}

 private:
  CallHook<int(pthread_mutex_t*)> hook_;
};

// Unlocking `mutex` succeeds but reports `rc`, with EAGAIN in errno, where `when` says so.
class BrokenUnlock {
 public:
  BrokenUnlock(
      pthread_mutex_t* broken, int rc, std::function<bool()> when = [] { return true; })
      : hook_(wrapped::pthread_mutex_unlock, [=, when = std::move(when)](pthread_mutex_t* mutex) {
          const int result = wrapped::pthread_mutex_unlock.real(mutex);
          if (mutex != broken || !when()) return result;
          errno = EAGAIN;
          return rc;
        }) {}

 private:
  CallHook<int(pthread_mutex_t*)> hook_;
};

// What is logged of a failed pthread call on the mutex of that name.
inline std::string mutex_failure(const std::string& operation, const std::string& call,
                                 const std::string& mutex, int rc, int error = EAGAIN) {
  return "<" + operation + "> pthread_mutex_" + call + " for " + mutex +
         " failed!!!!! rc = " + std::to_string(rc) + ", errno = " + std::to_string(error) + " (" +
         std::strerror(error) + ")";
}
