#include "tests/link/handshake_lock.h"

#include <cerrno>

HandshakeLock::~HandshakeLock() { pthread_cond_destroy(&released_); }

int HandshakeLock::lock() {
  if (init_result() != 0) return init_result();
  int rc = mutex_.lock();
  if (rc != 0) return rc;
  while (held_) {
    rc = mutex_.wait(released_);
    if (rc != 0) {
      mutex_.unlock();
      return rc;
    }
  }
  held_ = true;
  rc = mutex_.unlock();
  if (rc != 0) held_ = false;
  return rc;
}

int HandshakeLock::unlock() {
  if (init_result() != 0) return init_result();
  const int rc = mutex_.lock();
  if (rc != 0) return rc;
  held_ = false;
  pthread_cond_signal(&released_);
  return mutex_.unlock();
}

int HandshakeLock::destroy() {
  if (init_result() != 0) return 0;
  int rc = mutex_.lock();
  if (rc != 0) return rc;
  const bool held = held_;
  rc = mutex_.unlock();
  if (rc != 0) return rc;
  return held ? EBUSY : mutex_.destroy();
}
