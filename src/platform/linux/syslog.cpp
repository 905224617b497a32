// The system log of a stock Linux system: syslog(3).
//
// Any thread may log. One lock guards the flags and the memory of repeats; messages leave outside
// of it, by way of a queue whose thread alone talks to the log.
#include "platform/syslog.h"

#include <syslog.h>
#include <unistd.h>

#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <string>
#include <utility>
#include <vector>

#include "platform/clock.h"
#include "platform/linux/log_flags.h"
#include "platform/linux/log_queue.h"
#include "platform/linux/repeat_limiter.h"
#include "platform/mutex.h"

namespace {

constexpr const char* kFlagsPath = "/etc/wan_lb/log-flags";

// Longer texts may not fit in a datagram to the log and would be lost as a whole.
constexpr size_t kMaxText = 8000;

// What the start may wait for a log without room: each time, and in all.
constexpr int kRoomMilliseconds = 1000;
constexpr long kStartMilliseconds = 10000;

bool is_main_thread() { return gettid() == getpid(); }

class SystemLog {
 public:
  SystemLog() {
    // syslog(3) would do it on the queue's thread, beside whoever follows a changed time zone.
    tzset();
    // The socket is had now, not by the first delivery: by then no descriptor may be left for it.
    openlog("wan_lb", LOG_PID | LOG_NDELAY, LOG_DAEMON);
  }

  LogQueue& queue() { return queue_; }

  bool wanted(int facility, int level) LB_EXCLUDES(mutex_) {
    std::vector<LogMessage> messages;
    bool result = false;
    {
      MutexLock lock(mutex_);
      messages = refresh();
      result = flags_.wanted(facility, level);
    }
    send(std::move(messages));
    return result;
  }

  void log(LogMessage message) LB_EXCLUDES(mutex_) {
    // Only what a failure may repeat for ever is limited. A change of state is said every time, and
    // so is all that the main thread has to say: it reads the configuration and starts the others.
    const bool limited =
        !is_main_thread() && (message.priority == LOG_WARNING || message.priority == LOG_DEBUG);
    std::vector<LogMessage> messages;
    {
      MutexLock lock(mutex_);
      if (limited && !flags_.all_repeats()) {
        messages = repeats_.admit(std::move(message), monotonic_now());
      } else {
        messages.push_back(std::move(message));
      }
    }
    send(std::move(messages));
  }

 private:
  std::vector<LogMessage> refresh() LB_REQUIRES(mutex_) {
    const timespec now = monotonic_now();
    std::vector<LogMessage> messages = repeats_.due(now);
    for (const std::string& problem : flags_.refresh(now)) {
      messages.push_back({LOG_WARNING, "%WAN-W-WARN: " + problem});
    }
    return messages;
  }

  static void deliver(const LogMessage& message) {
    syslog(message.priority, "%s", message.text.c_str());
  }

  void send(std::vector<LogMessage> messages) {
    for (LogMessage& message : messages) {
      if (is_main_thread() && start_may_wait_) {
        start_may_wait_ = queue_.wait_for_room(kRoomMilliseconds) &&
                          milliseconds_between(began_, monotonic_now()) < kStartMilliseconds;
      }
      queue_.add(std::move(message));
    }
  }

  Mutex mutex_;
  LogFlags flags_ LB_GUARDED_BY(mutex_){kFlagsPath};
  RepeatLimiter repeats_ LB_GUARDED_BY(mutex_);
  // Of the main thread, which starts the others only when it has said all: it may wait for a log
  // that reads, but no second time for one that does not.
  bool start_may_wait_ = true;
  const timespec began_ = monotonic_now();
  LogQueue& queue_ = *new LogQueue(deliver);  // never destroyed, as the log itself
};

// What a start that ends at once, or a failed one, had to say is waited for at its exit, but not
// for ever.
constexpr int kExitMilliseconds = 1000;

SystemLog& system_log();

void empty_queue() { system_log().queue().drain(kExitMilliseconds); }

SystemLog* make_system_log() {
  std::atexit(empty_queue);
  return new SystemLog;
}

// Never destroyed: threads may log until the process ends.
SystemLog& system_log() {
  static SystemLog* const log = make_system_log();
  return *log;
}

// The expanded text, cut to what the log takes. A format that cannot be expanded stands for itself.
std::string expand(const char* format, va_list arguments) __attribute__((format(printf, 1, 0)));
std::string expand(const char* format, va_list arguments) {
  std::string text(kMaxText, '\0');
  const int size = vsnprintf(text.data(), text.size(), format, arguments);
  if (size < 0) return format;
  if (static_cast<size_t>(size) < text.size()) {
    text.resize(static_cast<size_t>(size));
  } else {
    text.replace(text.size() - 4, 4, " ...");
  }
  text.shrink_to_fit();  // it may wait in the queue with many others
  return text;
}

}  // namespace

int SYSLOG_flag_get(int facility, int level) {
  return system_log().wanted(facility, level) ? 1 : 0;
}

void SYSLOG_message(int priority, const char* format, ...) {
  va_list arguments;
  va_start(arguments, format);
  std::string text = expand(format, arguments);
  va_end(arguments);
  system_log().log({priority, std::move(text)});
}
