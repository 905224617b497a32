#include "core/start_up.h"

// The daemon has no orderly stop: it runs until it is killed. Instrumented builds have something to
// say before that.
#ifdef __has_feature
#if __has_feature(address_sanitizer)
#define LB_LOOKS_FOR_LEAKS
#endif
#endif

#if defined(LB_COVERAGE) || defined(LB_LOOKS_FOR_LEAKS)
#include <unistd.h>

#include <csignal>
#endif

#ifdef LB_COVERAGE
extern "C" void __gcov_dump();

static void write_coverage(int) {
  __gcov_dump();
  _exit(0);
}
#endif

#ifdef LB_LOOKS_FOR_LEAKS
#include <sanitizer/lsan_interface.h>

// On the main thread, which waits for the others and is in no allocation.
static void look_for_leaks(int) {
  __lsan_do_leak_check();
  _exit(0);
}
#endif

int main(int argc, char** argv) {
#ifdef LB_COVERAGE
  signal(SIGTERM, write_coverage);
#endif
#ifdef LB_LOOKS_FOR_LEAKS
  signal(SIGTERM, look_for_leaks);
#endif
  return run_daemon(argc, argv);
}
