#include "platform/linux/log_queue.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <syslog.h>

#include <cerrno>
#include <chrono>
#include <condition_variable>
#include <future>
#include <limits>
#include <mutex>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "support/wrapped_calls.h"

using testing::ElementsAre;
using testing::IsEmpty;
using testing::SizeIs;
using namespace std::chrono_literals;

namespace {

constexpr auto kDeadline = 20s;
constexpr int kDrainMilliseconds = 20000;

// A log that may be kept from taking messages. Never destroyed: queues' threads live on.
class Log {
 public:
  static Log& the() {
    static Log& log = *new Log;
    return log;
  }

  void reset() {
    const std::lock_guard lock(mutex_);
    taken_.clear();
    offered_ = 0;
  }
  // Takes no message from that one on, which is counted from 1.
  void block_from(size_t offer) {
    const std::lock_guard lock(mutex_);
    blocked_from_ = offer;
    changed_.notify_all();
  }
  void release() { block_from(kNever); }
  void take(const LogMessage& message) {
    std::unique_lock lock(mutex_);
    const size_t offer = ++offered_;
    changed_.notify_all();
    // A queue that makes others wait meanwhile is to fail its test, not to hang it.
    if (!changed_.wait_for(lock, 2 * kDeadline, [&] { return offer < blocked_from_; })) {
      blocked_from_ = kNever;
    }
    taken_.push_back(std::to_string(message.priority) + " " + message.text);
    thread_ = std::this_thread::get_id();
  }

  // Waits until so many messages were offered, taken or not.
  bool wait_for_offers(size_t count) {
    std::unique_lock lock(mutex_);
    return changed_.wait_for(lock, kDeadline, [&] { return offered_ >= count; });
  }
  // Each with its priority in front.
  std::vector<std::string> taken() {
    const std::lock_guard lock(mutex_);
    return taken_;
  }
  std::thread::id thread() {
    const std::lock_guard lock(mutex_);
    return thread_;
  }

 private:
  static constexpr size_t kNever = std::numeric_limits<size_t>::max();

  std::mutex mutex_;
  std::condition_variable changed_;
  size_t blocked_from_ = kNever;
  size_t offered_ = 0;
  std::vector<std::string> taken_;
  std::thread::id thread_;
};

void deliver(const LogMessage& message) { Log::the().take(message); }

class LogQueueTest : public testing::Test {
 protected:
  LogQueueTest() { log_.reset(); }
  // Nothing is on its way to the log of the next test.
  ~LogQueueTest() override {
    log_.release();
    EXPECT_TRUE(drain());
  }

  void add(const std::string& text, int priority = LOG_WARNING) { queue_.add({priority, text}); }
  void add_many(const std::string& text, size_t count, int priority = LOG_WARNING) {
    for (size_t i = 0; i < count; ++i) add(text + std::to_string(i), priority);
  }
  bool drain(int milliseconds = kDrainMilliseconds) { return queue_.drain(milliseconds); }

  // The log has one message in its hands and takes no more; the queue is empty.
  void block_log() {
    log_.block_from(1);
    add("first");
    ASSERT_TRUE(log_.wait_for_offers(1));
  }

  Log& log_ = Log::the();
  LogQueue& queue_ = *new LogQueue(deliver);
};

}  // namespace

TEST_F(LogQueueTest, MessagesArriveInOrderOnAnotherThread) {
  add("a");
  add("b", LOG_INFO);
  add("c", LOG_DEBUG);
  EXPECT_TRUE(drain());
  EXPECT_THAT(log_.taken(), ElementsAre("4 a", "6 b", "7 c"));
  EXPECT_NE(log_.thread(), std::this_thread::get_id());
}

TEST_F(LogQueueTest, ThreadIsStartedByTheFirstMessage) {
  EXPECT_EQ(call_count("pthread_create"), 0);
  EXPECT_TRUE(drain());
  EXPECT_EQ(call_count("pthread_create"), 0);
  for (int i = 0; i < 3; ++i) add("a");
  EXPECT_EQ(call_count("pthread_create"), 1);
  EXPECT_EQ(call_count("pthread_detach"), 1);
}

TEST_F(LogQueueTest, ThreadThatCannotBeHadIsAskedForAgain) {
  {
    const Fault fault("pthread_create", EAGAIN);
    add("a");
    EXPECT_FALSE(drain(0));
  }
  add("b");
  EXPECT_TRUE(drain());
  EXPECT_THAT(log_.taken(), ElementsAre("4 a", "4 b"));
}

TEST_F(LogQueueTest, ErrnoIsKept) {
  {
    CallHook hook(wrapped::pthread_create,
                  [](pthread_t*, const pthread_attr_t*, WrappedThreadStart, void*) {
                    errno = EAGAIN;
                    return EAGAIN;
                  });
    LogMessage message{LOG_WARNING, "a"};
    errno = ENOTTY;
    queue_.add(std::move(message));
    EXPECT_EQ(errno, ENOTTY);
  }
  add("b");
}

TEST_F(LogQueueTest, ThreadsMayAddAtTheSameTime) {
  std::vector<std::thread> threads;
  for (const char* const name : {"a", "b", "c", "d"}) {
    threads.emplace_back([this, name] { add_many(name, 200, LOG_INFO); });
  }
  for (std::thread& thread : threads) thread.join();
  EXPECT_TRUE(drain());
  const std::vector<std::string> taken = log_.taken();
  EXPECT_THAT(taken, SizeIs(800));
  int next = 0;
  for (const std::string& message : taken) {
    if (message.starts_with("6 b")) {
      EXPECT_EQ(message, "6 b" + std::to_string(next++));
    }
  }
  EXPECT_EQ(next, 200);
}

// --- a log that does not read ---

TEST_F(LogQueueTest, NobodyWaitsForTheLog) {
  block_log();
  std::future<void> done = std::async(std::launch::async, [this] { add_many("a", 5000); });
  EXPECT_EQ(done.wait_for(kDeadline), std::future_status::ready);
  EXPECT_THAT(log_.taken(), IsEmpty());
  log_.release();
}

TEST_F(LogQueueTest, LogThatNeverCatchesUpIsToldTheCountToo) {
  block_log();
  add_many("a", LogQueue::kMostMessages + 7);
  bool told = false;
  for (size_t taken = 2; !told && taken <= 3 * LogQueue::kMostWithStateChanges; ++taken) {
    log_.block_from(taken);
    ASSERT_TRUE(log_.wait_for_offers(taken));
    add("b");
    told = log_.taken().back().find("messages dropped") != std::string::npos;
  }
  EXPECT_TRUE(told);
  log_.release();
}

TEST_F(LogQueueTest, WhatHasNoRoomIsCountedAndToldAfterTheRest) {
  block_log();
  add_many("a", LogQueue::kMostMessages + 7);
  log_.release();
  EXPECT_TRUE(drain());
  const std::vector<std::string> taken = log_.taken();
  ASSERT_THAT(taken, SizeIs(1002));
  EXPECT_EQ(taken[0], "4 first");
  EXPECT_EQ(taken[1], "4 a0");
  EXPECT_EQ(taken[1000], "4 a999");
  EXPECT_EQ(taken[1001], "4 %WAN-W-WARN: 7 messages dropped, the log did not take them");
}

TEST_F(LogQueueTest, EveryLossIsToldOnce) {
  for (const char* const count : {"1", "2"}) {
    block_log();
    add_many("a", LogQueue::kMostMessages + static_cast<size_t>(std::stoi(count)));
    log_.release();
    EXPECT_TRUE(drain());
    EXPECT_EQ(log_.taken().back(), "4 %WAN-W-WARN: " + std::string(count) +
                                       " messages dropped, the log did not take them");
    add("after");
    EXPECT_TRUE(drain());
    EXPECT_EQ(log_.taken().back(), "4 after");
    log_.reset();
  }
}

TEST_F(LogQueueTest, StateChangesHaveRoomWhenTheOthersHaveNone) {
  block_log();
  add_many("error", LogQueue::kMostMessages);
  add_many("state", LogQueue::kMostWithStateChanges - LogQueue::kMostMessages, LOG_INFO);
  add("dropped");
  add("dropped", LOG_DEBUG);
  add("dropped", LOG_INFO);
  log_.release();
  EXPECT_TRUE(drain());
  const std::vector<std::string> taken = log_.taken();
  ASSERT_THAT(taken, SizeIs(2002));
  EXPECT_EQ(taken[1000], "4 error999");
  EXPECT_EQ(taken[1001], "6 state0");
  EXPECT_EQ(taken[2000], "6 state999");
  EXPECT_EQ(taken[2001], "4 %WAN-W-WARN: 3 messages dropped, the log did not take them");
}

// --- draining ---

TEST_F(LogQueueTest, DrainingEndsInTimeWithoutSuccess) {
  block_log();
  add("waiting");
  for (const int milliseconds : {0, 999}) {
    const auto start = std::chrono::steady_clock::now();
    EXPECT_FALSE(drain(milliseconds));
    const auto passed = std::chrono::steady_clock::now() - start;
    EXPECT_GE(passed, std::chrono::milliseconds(milliseconds));
    EXPECT_LT(passed, kDeadline);
  }
}

// The last message has left the queue, and has not arrived.
TEST_F(LogQueueTest, DrainingWaitsForTheMessageThatIsBeingDelivered) {
  block_log();
  EXPECT_FALSE(drain(0));
  std::future<bool> drained = std::async(std::launch::async, [this] { return drain(); });
  log_.release();
  EXPECT_TRUE(drained.get());
  EXPECT_THAT(log_.taken(), ElementsAre("4 first"));
}

TEST_F(LogQueueTest, DrainingWaitsForTheCountToo) {
  block_log();
  add_many("a", LogQueue::kMostMessages + 1);
  log_.block_from(1002);
  ASSERT_TRUE(log_.wait_for_offers(1002));
  EXPECT_THAT(log_.taken(), SizeIs(1001));
  EXPECT_FALSE(drain(0));
  log_.release();
  EXPECT_TRUE(drain());
  EXPECT_THAT(log_.taken(), SizeIs(1002));
}
