// Messages on their way to the log: one thread hands them over, so that no other ever waits for a
// log that does not read.
#pragma once

#include <pthread.h>

#include <cstddef>
#include <deque>

#include "platform/linux/repeat_limiter.h"
#include "platform/mutex.h"

// Any thread. Bounded: where there is no room a message is dropped, and how many were is said once
// there is. State changes have more room than the others, so that they are dropped last.
class LogQueue {
 public:
  static constexpr size_t kMostMessages = 1000;
  static constexpr size_t kMostWithStateChanges = 2000;

  using Deliver = void (*)(const LogMessage& message);

  // `deliver` is called on the queue's thread and may block. The thread starts with the first
  // message, which must not come before a fork: threads stay behind.
  explicit LogQueue(Deliver deliver);
  ~LogQueue() = delete;  // its thread runs until the process ends
  LogQueue(const LogQueue&) = delete;
  LogQueue& operator=(const LogQueue&) = delete;

  // Never waits. Keeps errno.
  void add(LogMessage message) LB_EXCLUDES(mutex_);

  // Waits until there is room for any message, for `milliseconds` at most. False when there is
  // none.
  bool wait_for_room(int milliseconds) LB_EXCLUDES(mutex_);

  // Waits until all that was added has been delivered, for `milliseconds` at most. False when time
  // was over first.
  bool drain(int milliseconds) LB_EXCLUDES(mutex_);

 private:
  static void* run(void* queue);
  [[noreturn]] void deliver_all() LB_EXCLUDES(mutex_);
  void start_thread() LB_REQUIRES(mutex_);
  bool has_room_for(const LogMessage& message) const LB_REQUIRES(mutex_);
  LogMessage take() LB_REQUIRES(mutex_);

  const Deliver deliver_;
  Mutex mutex_;
  pthread_cond_t changed_;
  std::deque<LogMessage> messages_ LB_GUARDED_BY(mutex_);
  unsigned long dropped_ LB_GUARDED_BY(mutex_) = 0;
  size_t taken_since_count_ LB_GUARDED_BY(mutex_) = 0;  // messages since dropped ones were counted
  bool delivering_ LB_GUARDED_BY(mutex_) = false;
  bool started_ LB_GUARDED_BY(mutex_) = false;  // the thread
};
