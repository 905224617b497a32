// The system log of the fuzz targets: every message is formatted, so that its arguments are read,
// and goes nowhere.
#include <cstdarg>
#include <cstdio>

#include "platform/syslog.h"

int SYSLOG_flag_get(int /*facility*/, int /*level*/) { return 1; }

void SYSLOG_message(int /*priority*/, const char* format, ...) {
  char text[2048];
  va_list arguments;
  va_start(arguments, format);
  vsnprintf(text, sizeof(text), format, arguments);
  va_end(arguments);
}
