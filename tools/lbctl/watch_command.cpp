// lbctl watch: a command for each change of an interface's state.
#include <memory>
#include <string>

#include <fmt/format.h>

#include "lbctl/change_hook.h"
#include "lbctl/command.h"
#include "lbctl/dumps.h"
#include "lbctl/end_signals.h"
#include "lbctl/print.h"
#include "lbctl/recorder_watch.h"
#include "platform/clock.h"

namespace lbctl {

namespace {

struct WatchOptions {
  std::string directory = kDefaultOutputDirectory;
  std::string command;
  int limit = 30;
};

// What the change looks like on standard output.
std::string line_of(const InterfaceChange& change) {
  return fmt::format("{} {} {}\n", rfc3339(change.time),
                     printable(interface_label(change.interface, change.ipv6)),
                     change.active ? "ACTIVE" : "FAILED");
}

int run_watch(const WatchOptions& options) {
  const sigset_t while_waiting = take_end_signals();
  DumpWatch watch(options.directory);
  read_dumps(options.directory);  // says what is wrong with them
  ChangeFinder finder;
  ChangeHook hook(options.command, options.limit);
  while (!end_is_wanted()) {
    for (const bool ipv6 : {false, true}) {
      const auto interfaces = watch.read_new(ipv6);
      if (!interfaces) continue;
      for (const InterfaceChange& change : finder.take(*interfaces, ipv6, wall_now().tv_sec)) {
        print_text(line_of(change));
        if (!options.command.empty()) hook.add(change);
      }
    }
    if (std::fflush(stdout) != 0) break;  // told at the end
    hook.attend(monotonic_now());
    watch.wait(while_waiting);
  }
  return kExitOk;
}

}  // namespace

void add_watch_command(CLI::App& program, Action& action) {
  const auto options = std::make_shared<WatchOptions>();
  const CommandLine command(
      program, "watch",
      "Print each change of an interface's state, until Ctrl-C (or SIGTERM), and run a command for "
      "it. "
      "The command finds the change in its environment: WAN_LB_INTERFACE, WAN_LB_FAMILY (4 or 6), "
      "WAN_LB_VRF, WAN_LB_STATE (active or failed), WAN_LB_NEXTHOP and WAN_LB_TIME.",
      "lbctl watch --exec 'logger \"$WAN_LB_INTERFACE is $WAN_LB_STATE\"'");
  command.value("-o", options->directory, "The daemon's output directory").shows_default();
  command.value("--exec", options->command, "The command, for /bin/sh; one runs at a time");
  command.value("--limit", options->limit, "Seconds after which a command is killed")
      .range(1, 3600)
      .shows_default();
  command.runs(action, [options] { return run_watch(*options); });
}

}  // namespace lbctl
