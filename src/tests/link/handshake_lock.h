// A lock that one thread takes and another may give back.
//
// A starting receiver is waited for with it: the starter takes the lock, the receiver gives it back
// once it listens. A pthread mutex does not allow that (only its owner may unlock it), so the lock
// is a flag with a mutex and a condition around it. Results are POSIX return codes (0 or an errno
// value), those of the pthread calls inside. The compiler's analysis takes every lock() of a Mutex
// for a success; here failures are passed on, so it is off for these functions.
#pragma once

#include <pthread.h>

#include "platform/mutex.h"

class HandshakeLock {
 public:
  HandshakeLock() = default;
  ~HandshakeLock();
  HandshakeLock(const HandshakeLock&) = delete;
  HandshakeLock& operator=(const HandshakeLock&) = delete;

  // What pthread_mutex_init said. A lock that was not initialised refuses with the same value.
  int init_result() const { return mutex_.init_result(); }

  // Takes the lock and waits as long as somebody holds it.
  int lock() LB_NO_THREAD_SAFETY_ANALYSIS;

  // Gives the lock back, whoever took it.
  int unlock() LB_NO_THREAD_SAFETY_ANALYSIS;

  // Ends the use of the lock; EBUSY, and no effect, while somebody holds it. Called once, by a
  // caller that reports the result.
  int destroy() LB_NO_THREAD_SAFETY_ANALYSIS;

 private:
  Mutex mutex_;
  pthread_cond_t released_ = PTHREAD_COND_INITIALIZER;
  bool held_ LB_GUARDED_BY(mutex_) = false;
};
