// The platform's log, kept in memory for tests: replaces SYSLOG_message and SYSLOG_flag_get.
//
// Every test starts with an empty log and the flags of levels 0 to 2 on, 3 (debug) off.
#pragma once

#include <gmock/gmock.h>

#include <ostream>
#include <string>
#include <vector>

struct LogRecord {
  int priority;
  std::string text;  // after expansion: "%WAN-W-ERR: ..."
};

std::ostream& operator<<(std::ostream& out, const LogRecord& record);

// What was logged since the test started or the last clear_log, oldest first. Any thread.
std::vector<LogRecord> log_records();
std::vector<std::string> log_texts();
void clear_log();

// Switches messages behind guard `level` (0 to 3) on or off.
void set_log_flag(int level, bool on);

// Matches a record by priority and exact text, or by priority and a matcher of the text:
//   EXPECT_THAT(log_records(), ElementsAre(Logged(4, "%WAN-W-ERR: socket() failed")));
MATCHER_P2(Logged, priority, text, "") {
  return arg.priority == priority && testing::ExplainMatchResult(text, arg.text, result_listener);
}

// The daemon's four kinds of message, by what follows the prefix.
inline auto LoggedInstance(const std::string& text) {
  return Logged(6, testing::Eq("%WAN-I-INSTANCE: " + text));
}
inline auto LoggedError(const std::string& text) {
  return Logged(4, testing::Eq("%WAN-W-ERR: " + text));
}
inline auto LoggedWarning(const std::string& text) {
  return Logged(4, testing::Eq("%WAN-W-WARN: " + text));
}
inline auto LoggedDebug(const std::string& text) {
  return Logged(7, testing::Eq("%WAN-D-DBG: " + text));
}
