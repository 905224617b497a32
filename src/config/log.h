// The daemon's messages: who they are from, at which level, behind which guard.
//
// Each macro takes the message's text (a printf format) and its arguments and sends
// "%WAN-<level letter>-<mnemonic>: text" when the facility's flag of the guard level is set.
#pragma once

#include <cerrno>

#include "platform/syslog.h"

inline constexpr int kLogFacility = 34;

// errno is the caller's all along: arguments may read it, and it is the same afterwards.
#define LB_LOG(guard, priority, letter, mnemonic, text, ...)       \
  do {                                                             \
    const int lb_log_errno = errno;                                \
    if (SYSLOG_flag_get(kLogFacility, guard)) {                    \
      errno = lb_log_errno;                                        \
      SYSLOG_message(priority, "%%%s-%s-%s: " text, "WAN", letter, \
                     mnemonic __VA_OPT__(, ) __VA_ARGS__);         \
    }                                                              \
    errno = lb_log_errno;                                          \
  } while (false)

#define LB_INSTANCE(text, ...) LB_LOG(0, 6, "I", "INSTANCE", text __VA_OPT__(, ) __VA_ARGS__)
#define LB_ERROR(text, ...) LB_LOG(1, 4, "W", "ERR", text __VA_OPT__(, ) __VA_ARGS__)
#define LB_WARNING(text, ...) LB_LOG(2, 4, "W", "WARN", text __VA_OPT__(, ) __VA_ARGS__)
#define LB_DEBUG(text, ...) LB_LOG(3, 7, "D", "DBG", text __VA_OPT__(, ) __VA_ARGS__)
