#include "support/recorded_log.h"

#include <array>
#include <atomic>
#include <cstdarg>
#include <cstdio>

#include "platform/syslog.h"
#include "support/spin_lock.h"
#include "support/test_start.h"

namespace {

constexpr int kFacility = 34;
constexpr int kLevels = 4;

// Never destroyed: threads may log until the process ends.
struct Log {
  SpinLock lock;
  std::vector<LogRecord> records;
  std::array<std::atomic<bool>, kLevels> flags{true, true, true, false};
};

Log& the_log() {
  static Log* const log = new Log;
  return *log;
}

void reset_log() {
  clear_log();
  for (int level = 0; level < kLevels; ++level) set_log_flag(level, level < kLevels - 1);
}

const AtTestStart reset_at_test_start(&reset_log);

}  // namespace

int SYSLOG_flag_get(int facility, int level) {
  if (facility != kFacility || level < 0 || level >= kLevels) return 0;
  return the_log().flags[static_cast<size_t>(level)].load() ? 1 : 0;
}

void SYSLOG_message(int priority, const char* format, ...) {
  va_list arguments;
  va_start(arguments, format);
  va_list again;
  va_copy(again, arguments);
  const int size = vsnprintf(nullptr, 0, format, arguments);
  va_end(arguments);
  std::string text(size < 0 ? 0 : static_cast<size_t>(size) + 1, '\0');
  if (size >= 0) {
    vsnprintf(text.data(), text.size(), format, again);
    text.pop_back();
  }
  va_end(again);
  Log& log = the_log();
  SpinLockHolder holder(log.lock);
  log.records.push_back({priority, std::move(text)});
}

std::ostream& operator<<(std::ostream& out, const LogRecord& record) {
  return out << '<' << record.priority << "> " << record.text;
}

std::vector<LogRecord> log_records() {
  Log& log = the_log();
  SpinLockHolder holder(log.lock);
  return log.records;
}

std::vector<std::string> log_texts() {
  std::vector<std::string> texts;
  for (LogRecord& record : log_records()) texts.push_back(std::move(record.text));
  return texts;
}

void clear_log() {
  Log& log = the_log();
  SpinLockHolder holder(log.lock);
  log.records.clear();
}

void set_log_flag(int level, bool on) { the_log().flags[static_cast<size_t>(level)].store(on); }
