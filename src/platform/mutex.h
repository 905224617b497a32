// Locks that the compiler checks (clang -Wthread-safety) and that report what POSIX reports.
#pragma once

#include <pthread.h>

#include <ctime>

#if defined(__clang__)
#define LB_THREAD_ANNOTATION(x) __attribute__((x))
#else
#define LB_THREAD_ANNOTATION(x)
#endif

#define LB_CAPABILITY(x) LB_THREAD_ANNOTATION(capability(x))
#define LB_SCOPED_CAPABILITY LB_THREAD_ANNOTATION(scoped_lockable)
#define LB_GUARDED_BY(x) LB_THREAD_ANNOTATION(guarded_by(x))
#define LB_REQUIRES(...) LB_THREAD_ANNOTATION(requires_capability(__VA_ARGS__))
#define LB_ACQUIRE(...) LB_THREAD_ANNOTATION(acquire_capability(__VA_ARGS__))
#define LB_RELEASE(...) LB_THREAD_ANNOTATION(release_capability(__VA_ARGS__))
#define LB_TRY_ACQUIRE(...) LB_THREAD_ANNOTATION(try_acquire_capability(__VA_ARGS__))
#define LB_EXCLUDES(...) LB_THREAD_ANNOTATION(locks_excluded(__VA_ARGS__))
#define LB_NO_THREAD_SAFETY_ANALYSIS LB_THREAD_ANNOTATION(no_thread_safety_analysis)

// A POSIX mutex with default attributes. The results are the POSIX return codes (0 or an errno
// value); a caller that has a message for a failure logs it, the others may ignore it.
class LB_CAPABILITY("mutex") Mutex {
 public:
  Mutex() : init_result_(pthread_mutex_init(&mutex_, nullptr)) {}
  ~Mutex() { destroy(); }
  Mutex(const Mutex&) = delete;
  Mutex& operator=(const Mutex&) = delete;

  // What pthread_mutex_init said.
  int init_result() const { return init_result_; }

  int lock() LB_ACQUIRE() { return pthread_mutex_lock(&mutex_); }
  int unlock() LB_RELEASE() { return pthread_mutex_unlock(&mutex_); }
  bool try_lock() LB_TRY_ACQUIRE(true) { return pthread_mutex_trylock(&mutex_) == 0; }

  // Releases the mutex, waits until `condition` is signalled (or for no reason), takes it again.
  int wait(pthread_cond_t& condition) LB_REQUIRES(this) {
    return pthread_cond_wait(&condition, &mutex_);
  }

  // The same until a time of the condition's clock at most; ETIMEDOUT then.
  int wait_until(pthread_cond_t& condition, const timespec& time) LB_REQUIRES(this) {
    return pthread_cond_timedwait(&condition, &mutex_, &time);
  }

  // Destroys the mutex ahead of the destructor for a caller that reports the result; once only.
  int destroy() {
    if (init_result_ != 0 || destroyed_) return 0;
    destroyed_ = true;
    return pthread_mutex_destroy(&mutex_);
  }

 private:
  // Usable even where pthread_mutex_init fails: the failure is reported and the work goes on.
  pthread_mutex_t mutex_ = PTHREAD_MUTEX_INITIALIZER;
  int init_result_;
  bool destroyed_ = false;
};

// Holds a Mutex for a scope.
class LB_SCOPED_CAPABILITY MutexLock {
 public:
  explicit MutexLock(Mutex& mutex) LB_ACQUIRE(mutex) : mutex_(mutex) { mutex_.lock(); }
  ~MutexLock() LB_RELEASE() { mutex_.unlock(); }
  MutexLock(const MutexLock&) = delete;
  MutexLock& operator=(const MutexLock&) = delete;

 private:
  Mutex& mutex_;
};
