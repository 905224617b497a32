// The message about a mutex that does not do what it is told.
#pragma once

// Logs that `call` (pthread_mutex_lock, ...) for the mutex known as `mutex` failed with `rc` in
// `operation`. Reads errno.
void log_mutex_failure(const char* operation, const char* call, const char* mutex, int rc);
