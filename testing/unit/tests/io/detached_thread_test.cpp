#include "tests/io/detached_thread.h"

#include <gtest/gtest.h>

#include <atomic>

#include "support/echo_fixture.h"
#include "support/wrapped_calls.h"

namespace {

std::atomic<int> runs{0};

void* count_run(void* argument) {
  runs += *static_cast<int*>(argument);
  return nullptr;
}

}  // namespace

TEST(DetachedThreadTest, RunsItsBodyWithItsArgument) {
  static int step = 3;
  runs = 0;
  const DetachedThread thread = start_detached_thread(&count_run, &step);
  EXPECT_EQ(thread.create_result, 0);
  EXPECT_EQ(thread.detach_result, 0);
  EXPECT_TRUE(wait_until([] { return runs == 3; }));
  EXPECT_EQ(call_count("pthread_detach"), 1);
}

TEST(DetachedThreadTest, DefaultAttributes) {
  CallHook hook(wrapped::pthread_create,
                [](pthread_t*, const pthread_attr_t* attributes, WrappedThreadStart, void*) {
                  EXPECT_EQ(attributes, nullptr);
                  return EAGAIN;
                });
  start_detached_thread(&count_run, nullptr);
}

TEST(DetachedThreadTest, NothingToDetachWhereNoneWasMade) {
  Fault fault("pthread_create", EAGAIN);
  const DetachedThread thread = start_detached_thread(&count_run, nullptr);
  EXPECT_EQ(thread.create_result, EAGAIN);
  EXPECT_EQ(thread.detach_result, ESRCH);
  EXPECT_EQ(call_count("pthread_detach"), 0);
}

TEST(DetachedThreadTest, FailureOfDetachingIsTold) {
  FakeNetwork network;
  static int step = 1;
  CallHook hook(wrapped::pthread_detach, [](pthread_t thread) {
    wrapped::pthread_detach.real(thread);
    return EINVAL;
  });
  const DetachedThread thread = start_detached_thread(&count_run, &step);
  EXPECT_EQ(thread.create_result, 0);
  EXPECT_EQ(thread.detach_result, EINVAL);
}
