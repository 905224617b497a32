// Part of `lb` in coverage and address-sanitizer builds only. The daemon has no orderly stop: it
// runs until it is killed. Here SIGTERM first writes the coverage counts, looks for leaks, or both.
//
// The handler runs on the main thread, which waits for the others and is in no allocation.
#include <unistd.h>

#include <csignal>

#ifdef LB_COVERAGE
extern "C" void __gcov_dump();
#endif
#ifdef LB_LEAK_CHECK
#include <sanitizer/lsan_interface.h>
#endif

namespace {

// The lab knows an instrumented program by this name.
void end_instrumented_daemon(int /*signal*/) {
#ifdef LB_COVERAGE
  __gcov_dump();
#endif
#ifdef LB_LEAK_CHECK
  __lsan_do_leak_check();
#endif
  _exit(0);
}

[[maybe_unused]] const auto previous_handler = signal(SIGTERM, end_instrumented_daemon);

}  // namespace
