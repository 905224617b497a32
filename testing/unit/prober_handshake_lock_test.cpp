#include "tests/handshake_lock.h"

#include <gtest/gtest.h>

#include <atomic>
#include <cerrno>
#include <thread>

#include "support/wrapped_calls.h"

namespace {

// Passes every unlocking on, and reports an error for the one with number `failing` (from 0).
auto failing_unlock(std::atomic<int>& calls, int failing) {
  return [&calls, failing](pthread_mutex_t* mutex) {
    const int rc = wrapped::pthread_mutex_unlock.real(mutex);
    return calls++ == failing ? EPERM : rc;
  };
}

}  // namespace

TEST(ProberHandshakeLock, IsGivenBackByAnotherThread) {
  HandshakeLock lock;
  EXPECT_EQ(lock.init_result(), 0);
  ASSERT_EQ(lock.lock(), 0);
  std::thread([&] { EXPECT_EQ(lock.unlock(), 0); }).join();
  EXPECT_EQ(lock.lock(), 0);
  EXPECT_EQ(lock.unlock(), 0);
  EXPECT_EQ(lock.destroy(), 0);
}

TEST(ProberHandshakeLock, WaitsUntilItIsGivenBack) {
  HandshakeLock lock;
  ASSERT_EQ(lock.lock(), 0);
  std::atomic<bool> given_back{false};
  bool seen = false;
  std::atomic<bool> waiting{false};
  std::thread waiter([&] {
    waiting = true;
    lock.lock();
    seen = given_back;
    lock.unlock();
  });
  while (!waiting) std::this_thread::yield();
  for (int i = 0; i < 1000; ++i) std::this_thread::yield();
  given_back = true;
  lock.unlock();
  waiter.join();
  EXPECT_TRUE(seen);
}

TEST(ProberHandshakeLock, ExcludesThreads) {
  HandshakeLock lock;
  int counter = 0;  // no atomic: the lock has to protect it
  const auto count = [&] {
    for (int i = 0; i < 2000; ++i) {
      lock.lock();
      ++counter;
      lock.unlock();
    }
  };
  std::thread one(count), two(count);
  one.join();
  two.join();
  EXPECT_EQ(counter, 4000);
}

TEST(ProberHandshakeLock, HeldLockIsNotDestroyed) {
  HandshakeLock lock;
  ASSERT_EQ(lock.lock(), 0);
  EXPECT_EQ(lock.destroy(), EBUSY);
  EXPECT_EQ(lock.unlock(), 0);
  EXPECT_EQ(lock.lock(), 0);
}

TEST(ProberHandshakeLock, FailedLockingIsPassedOn) {
  HandshakeLock lock;
  int rc[3];
  {
    Fault fault("pthread_mutex_lock", EDEADLK);
    rc[0] = lock.lock();
    rc[1] = lock.unlock();
    rc[2] = lock.destroy();
  }
  for (const int result : rc) EXPECT_EQ(result, EDEADLK);
  EXPECT_EQ(lock.lock(), 0) << "a failure must leave the lock free";
}

TEST(ProberHandshakeLock, FailedUnlockingIsPassedOn) {
  HandshakeLock lock;
  std::atomic<int> calls{0};
  int rc[3];
  {
    CallHook hook(wrapped::pthread_mutex_unlock, failing_unlock(calls, 0));
    rc[0] = lock.lock();
  }
  calls = 0;
  {
    CallHook hook(wrapped::pthread_mutex_unlock, failing_unlock(calls, 0));
    rc[1] = lock.unlock();
  }
  calls = 0;
  {
    CallHook hook(wrapped::pthread_mutex_unlock, failing_unlock(calls, 0));
    rc[2] = lock.destroy();
  }
  for (const int result : rc) EXPECT_EQ(result, EPERM);
  EXPECT_EQ(lock.lock(), 0) << "a failed lock() must leave the lock free";
}

TEST(ProberHandshakeLock, LockThatWasNotInitialisedRefuses) {
  Fault fault("pthread_mutex_init", ENOMEM, 0, 1);
  HandshakeLock lock;
  EXPECT_EQ(lock.init_result(), ENOMEM);
  EXPECT_EQ(lock.lock(), ENOMEM);
  EXPECT_EQ(lock.unlock(), ENOMEM);
  EXPECT_EQ(lock.destroy(), 0);
}
