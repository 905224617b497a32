// lb_benchmarks: measures every subject.
//
//   lb_benchmarks [--benchmark_...]   in time, with Google Benchmark
//   lb_benchmarks --count             in instructions, under callgrind with --instr-atstart=no: one
//                                     dump per subject, with the subject's name
#include <valgrind/callgrind.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "support/subject.h"

namespace {

int count_instructions() {
  if (RUNNING_ON_VALGRIND == 0) {
    std::fprintf(stderr, "lb_benchmarks: --count is for callgrind\n");
    return 2;
  }
  for (const Subject& subject : subjects()) {
    const Work work = subject.prepare();
    work();  // what is done but once belongs to no unit
    CALLGRIND_START_INSTRUMENTATION;
    CALLGRIND_ZERO_STATS;
    work();
    CALLGRIND_STOP_INSTRUMENTATION;
    CALLGRIND_DUMP_STATS_AT(subject.name.c_str());
  }
  return 0;
}

void measure(benchmark::State& state, const Subject& subject) {
  const Work work = subject.prepare();
  work();
  for ([[maybe_unused]] auto unit : state) work();
}

}  // namespace

int main(int argc, char** argv) {
  // What is written must not depend on where it is measured.
  setenv("TZ", "UTC", 1);
  if (argc == 2 && std::strcmp(argv[1], "--count") == 0) return count_instructions();
  for (const Subject& subject : subjects()) {
    benchmark::RegisterBenchmark(subject.name.c_str(), [subject](benchmark::State& state) {
      measure(state, subject);
    })->Unit(benchmark::kMicrosecond);
  }
  benchmark::Initialize(&argc, argv);
  if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 2;
  benchmark::RunSpecifiedBenchmarks();
  return 0;
}
