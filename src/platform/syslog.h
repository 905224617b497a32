// The device's system log.
//
// A message is sent only when the flag of its facility and guard level is set:
//
//   if (SYSLOG_flag_get(34, 1)) SYSLOG_message(4, "%%%s-%s-%s: text", "WAN", "W", "ERR");
//
// The macros of config/log.h do both. All operations may be called from any thread.
#pragma once

extern "C" {

// Non-zero when messages of `facility` are wanted at guard `level` (0 state changes, 1 errors,
// 2 warnings, 3 debug). Never fails.
int SYSLOG_flag_get(int facility, int level);

// Sends one message with a syslog priority (0 emergency ... 7 debug). The format is printf's; a
// trailing newline is not needed. A log that cannot be reached loses the message, nothing else.
void SYSLOG_message(int priority, const char* format, ...) __attribute__((format(printf, 2, 3)));

}  // extern "C"
