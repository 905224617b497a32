#include "core/start_up.h"

#ifdef LB_COVERAGE
#include <unistd.h>

#include <csignal>

extern "C" void __gcov_dump();

// The daemon has no orderly stop; a coverage run ends it with SIGTERM and wants the counts.
static void write_coverage(int) {
  __gcov_dump();
  _exit(0);
}
#endif

int main(int argc, char** argv) {
#ifdef LB_COVERAGE
  signal(SIGTERM, write_coverage);
#endif
  return run_daemon(argc, argv);
}
