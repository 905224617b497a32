// lbctl record: a trace of what the running daemon's dumps show, for lbctl simulate.
#include <cstdio>
#include <ctime>
#include <memory>
#include <string>

#include <fmt/format.h>

#include "lbctl/command.h"
#include "lbctl/dumps.h"
#include "lbctl/end_signals.h"
#include "lbctl/print.h"
#include "lbctl/recorder.h"
#include "lbctl/recorder_watch.h"
#include "platform/clock.h"

namespace lbctl {

namespace {

int64_t nanoseconds_since(const timespec& start) {
  const timespec now = monotonic_now();
  return (int64_t{now.tv_sec} - start.tv_sec) * 1'000'000'000 + (now.tv_nsec - start.tv_nsec);
}

int run_record(const std::string& directory) {
  const sigset_t while_waiting = take_end_signals();
  DumpWatch watch(directory);
  read_dumps(directory);  // says what is wrong with them
  const timespec start = monotonic_now();
  print_text(fmt::format("# what the dumps in {} show, from {} on\n", printable(directory),
                         rfc3339(wall_now().tv_sec)));
  Recorder recorder;
  while (!end_is_wanted()) {
    for (const bool ipv6 : {false, true}) {
      if (const auto interfaces = watch.read_new(ipv6))
        print_text(recorder.take(*interfaces, ipv6, nanoseconds_since(start)));
    }
    if (std::fflush(stdout) != 0) break;  // told at the end
    watch.wait(while_waiting);
  }
  return kExitOk;
}

}  // namespace

void add_record_command(CLI::App& program, Action& action) {
  const auto directory = std::make_shared<std::string>(kDefaultOutputDirectory);
  const CommandLine command(
      program, "record",
      "Write a trace of what the running daemon finds, until Ctrl-C (or SIGTERM). "
      "lbctl simulate runs it with this configuration or another one.",
      "lbctl record > trace.txt");
  command.value("-o", *directory, "The daemon's output directory").shows_default();
  command.runs(action, [directory] { return run_record(*directory); });
}

}  // namespace lbctl
