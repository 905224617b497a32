#include <ctime>

#include <memory>
#include <string>

#include <nlohmann/json.hpp>

#include "lbctl/command.h"
#include "lbctl/dumps.h"
#include "lbctl/print.h"
#include "lbctl/status_json.h"
#include "lbctl/status_model.h"
#include "lbctl/status_text.h"
#include "lbctl/watch.h"

namespace lbctl {

namespace {

struct StatusOptions {
  std::string directory = kDefaultOutputDirectory;
  bool ipv4 = false;
  bool ipv6 = false;
  bool json = false;
  bool watch = false;

  // Both when none was asked for.
  Families families() const { return {ipv4 || !ipv6, ipv6 || !ipv4}; }
};

int run_status(const StatusOptions& options) {
  if (options.watch) return watch_status(options.directory, options.families());
  const Dumps dumps = read_dumps(options.directory, options.families());
  const Status status =
      make_status(dumps, options.families(), std::time(nullptr), read_kernel_routes);
  if (options.json) {
    print_document(status_document(status));
  } else {
    print_text(joined(status_text(status), wants_colour()));
  }
  return exit_status_of(status);
}

}  // namespace

void add_status_command(CLI::App& program, Action& action) {
  const auto options = std::make_shared<StatusOptions>();
  const CommandLine command(
      program, "status",
      "Shows interfaces, tests, rules and whether their routes are in force. "
      "Exit status: 0 when every interface is active, 1 when one is failed, 3 when the "
      "files are stale (older than 10 seconds) or cannot be read.",
      "lbctl status -4");
  command.value("-o", options->directory, "The daemon's output directory (its option -o)")
      .value_name("DIR")
      .shows_default();
  command.flag("-4", options->ipv4, "IPv4 only");
  command.flag("-6", options->ipv6, "IPv6 only");
  const Option json = command.flag("--json", options->json, "Print a JSON document");
  command.flag("--watch", options->watch, "A live view that takes the whole terminal; q quits")
      .excludes({json});
  command.runs(action, [options] { return run_status(*options); });
}

}  // namespace lbctl
