#include "platform/linux/log_queue.h"

#include <syslog.h>

#include <cerrno>
#include <ctime>
#include <string>
#include <utility>

namespace {

timespec monotonic_after(int milliseconds) {
  timespec time;
  clock_gettime(CLOCK_MONOTONIC, &time);
  time.tv_sec += milliseconds / 1000;
  time.tv_nsec += static_cast<long>(milliseconds % 1000) * 1000000;
  if (time.tv_nsec >= 1000000000) {
    ++time.tv_sec;
    time.tv_nsec -= 1000000000;
  }
  return time;
}

}  // namespace

LogQueue::LogQueue(Deliver deliver) : deliver_(deliver) {
  pthread_condattr_t attributes;
  pthread_condattr_init(&attributes);
  pthread_condattr_setclock(&attributes, CLOCK_MONOTONIC);
  pthread_cond_init(&changed_, &attributes);
  pthread_condattr_destroy(&attributes);
}

void LogQueue::add(LogMessage message) {
  const int error = errno;
  {
    MutexLock lock(mutex_);
    if (!started_) start_thread();
    if (has_room_for(message)) {
      messages_.push_back(std::move(message));
    } else {
      ++dropped_;
    }
    pthread_cond_broadcast(&changed_);
  }
  errno = error;
}

bool LogQueue::has_room_for(const LogMessage& message) const {
  const bool state_change = message.priority == LOG_INFO;
  return messages_.size() < (state_change ? kMostWithStateChanges : kMostMessages);
}

bool LogQueue::wait_for_room(int milliseconds) {
  const timespec until = monotonic_after(milliseconds);
  MutexLock lock(mutex_);
  while (messages_.size() >= kMostMessages) {
    if (mutex_.wait_until(changed_, until) == ETIMEDOUT) return false;
  }
  return true;
}

bool LogQueue::drain(int milliseconds) {
  const timespec until = monotonic_after(milliseconds);
  MutexLock lock(mutex_);
  while (!messages_.empty() || dropped_ > 0 || delivering_) {
    if (mutex_.wait_until(changed_, until) == ETIMEDOUT) return false;
  }
  return true;
}

// Without a thread (none could be had) messages stay, and the next one tries again.
void LogQueue::start_thread() {
  pthread_t thread;
  if (pthread_create(&thread, nullptr, run, this) != 0) return;
  pthread_detach(thread);
  started_ = true;
}

void* LogQueue::run(void* queue) { static_cast<LogQueue*>(queue)->deliver_all(); }

void LogQueue::deliver_all() {
  while (true) {
    LogMessage message;
    {
      MutexLock lock(mutex_);
      delivering_ = false;
      pthread_cond_broadcast(&changed_);
      while (messages_.empty() && dropped_ == 0) mutex_.wait(changed_);
      message = take();
      delivering_ = true;
    }
    deliver_(message);
  }
}

// The count of what was dropped comes after all that had room before. A log that never catches up
// hears it after twice as many messages as may wait.
LogMessage LogQueue::take() {
  ++taken_since_count_;
  if (messages_.empty() || (dropped_ > 0 && taken_since_count_ > 2 * kMostWithStateChanges)) {
    taken_since_count_ = 0;
    const std::string count = std::to_string(std::exchange(dropped_, 0));
    return {LOG_WARNING, "%WAN-W-WARN: " + count + " messages dropped, the log did not take them"};
  }
  LogMessage message = std::move(messages_.front());
  messages_.pop_front();
  return message;
}
