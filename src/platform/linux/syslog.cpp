// The system log of a stock Linux system: syslog(3).
//
// Any thread may log. One lock guards the flags and the memory of repeats; messages leave outside
// of it.
#include "platform/syslog.h"

#include <syslog.h>

#include <cstdarg>
#include <cstdio>
#include <string>
#include <utility>
#include <vector>

#include "platform/clock.h"
#include "platform/linux/log_flags.h"
#include "platform/linux/repeat_limiter.h"
#include "platform/mutex.h"

namespace {

constexpr const char* kFlagsPath = "/etc/wan_lb/log-flags";

// Longer texts may not fit in a datagram to the log and would be lost as a whole.
constexpr size_t kMaxText = 8000;

class SystemLog {
 public:
  SystemLog() { openlog("wan_lb", LOG_PID, LOG_DAEMON); }

  bool wanted(int facility, int level) LB_EXCLUDES(mutex_) {
    std::vector<LogMessage> messages;
    bool result = false;
    {
      MutexLock lock(mutex_);
      messages = refresh();
      result = flags_.wanted(facility, level);
    }
    send(messages);
    return result;
  }

  void log(LogMessage message) LB_EXCLUDES(mutex_) {
    // Only what a failure may repeat for ever is limited. A change of state is said every time.
    const bool limited = message.priority == LOG_WARNING || message.priority == LOG_DEBUG;
    std::vector<LogMessage> messages;
    {
      MutexLock lock(mutex_);
      if (limited && !flags_.all_repeats()) {
        messages = repeats_.admit(std::move(message), monotonic_now());
      } else {
        messages.push_back(std::move(message));
      }
    }
    send(messages);
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

  static void send(const std::vector<LogMessage>& messages) {
    for (const LogMessage& message : messages) {
      syslog(message.priority, "%s", message.text.c_str());
    }
  }

  Mutex mutex_;
  LogFlags flags_ LB_GUARDED_BY(mutex_){kFlagsPath};
  RepeatLimiter repeats_ LB_GUARDED_BY(mutex_);
};

// Never destroyed: threads may log until the process ends.
SystemLog& system_log() {
  static SystemLog* const log = new SystemLog;
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
