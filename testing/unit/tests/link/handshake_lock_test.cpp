#include "tests/link/handshake_lock.h"

#include <gtest/gtest.h>

#include <atomic>
#include <cerrno>
#include <thread>

#include "support/wrapped_calls.h"

namespace {

// Unlocks and reports an error all the same.
int failing_unlock(pthread_mutex_t* mutex) {
  wrapped::pthread_mutex_unlock.real(mutex);
  return EPERM;
}

}  // namespace

TEST(HandshakeLockTest, IsGivenBackByAnotherThread) {
  HandshakeLock lock;
  EXPECT_EQ(lock.init_result(), 0);
  ASSERT_EQ(lock.lock(), 0);
  std::thread([&] { EXPECT_EQ(lock.unlock(), 0); }).join();
  EXPECT_EQ(lock.lock(), 0);
  EXPECT_EQ(lock.unlock(), 0);
  EXPECT_EQ(lock.destroy(), 0);
}

TEST(HandshakeLockTest, WaitsUntilItIsGivenBack) {
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

TEST(HandshakeLockTest, ExcludesThreads) {
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

TEST(HandshakeLockTest, HeldLockIsNotDestroyed) {
  HandshakeLock lock;
  ASSERT_EQ(lock.lock(), 0);
  EXPECT_EQ(lock.destroy(), EBUSY);
  EXPECT_EQ(lock.unlock(), 0);
  EXPECT_EQ(lock.lock(), 0);
}

TEST(HandshakeLockTest, FailedLockingIsPassedOn) {
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

TEST(HandshakeLockTest, FailedUnlockingIsPassedOn) {
  HandshakeLock lock;
  int rc;
  {
    CallHook hook(wrapped::pthread_mutex_unlock, failing_unlock);
    rc = lock.lock();
  }
  EXPECT_EQ(rc, EPERM);
  // A failed lock() leaves the lock free.
  ASSERT_EQ(lock.lock(), 0);
  {
    CallHook hook(wrapped::pthread_mutex_unlock, failing_unlock);
    rc = lock.unlock();
  }
  EXPECT_EQ(rc, EPERM);
  {
    CallHook hook(wrapped::pthread_mutex_unlock, failing_unlock);
    rc = lock.destroy();
  }
  EXPECT_EQ(rc, EPERM);
}

TEST(HandshakeLockTest, LockThatWasNotInitialisedRefuses) {
  Fault fault("pthread_mutex_init", ENOMEM, 0, 1);
  HandshakeLock lock;
  EXPECT_EQ(lock.init_result(), ENOMEM);
  EXPECT_EQ(lock.lock(), ENOMEM);
  EXPECT_EQ(lock.unlock(), ENOMEM);
  EXPECT_EQ(lock.destroy(), 0);
}
