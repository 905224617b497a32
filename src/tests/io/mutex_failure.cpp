#include "tests/io/mutex_failure.h"

#include <cerrno>

#include "config/log.h"
#include "packets/error_text.h"

void log_mutex_failure(const char* operation, const char* call, const char* mutex, int rc) {
  const int error = errno;
  LB_ERROR("<%s> %s for %s failed!!!!! rc = %d, errno = %d (%s)", operation, call, mutex, rc, error,
           error_text(error).c_str());
}
