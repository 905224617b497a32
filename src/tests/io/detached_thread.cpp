#include "tests/io/detached_thread.h"

#include <pthread.h>

#include <cerrno>

DetachedThread start_detached_thread(void* (*body)(void*), void* argument) {
  pthread_t thread;
  const int create_result = pthread_create(&thread, nullptr, body, argument);
  if (create_result != 0) return {create_result, ESRCH};
  return {0, pthread_detach(thread)};
}
