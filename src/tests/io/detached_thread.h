// Threads that nobody joins.
#pragma once

// Results of starting one, as POSIX return codes.
struct DetachedThread {
  int create_result;
  int detach_result;  // ESRCH when there was no thread to detach
};

// Starts `body` with `argument` on a thread of default attributes and detaches it.
DetachedThread start_detached_thread(void* (*body)(void*), void* argument);
