#include <sys/stat.h>

#include <cerrno>
#include <cstring>
#include <memory>
#include <string>

#include <fmt/format.h>

#include "lbctl/command.h"
#include "lbctl/dumps.h"
#include "lbctl/metrics_text.h"
#include "lbctl/print.h"
#include "platform/regular_file.h"
#include "routing/whole_file.h"

namespace lbctl {

namespace {

struct MetricsOptions {
  std::string directory = kDefaultOutputDirectory;
  std::string output;
};

// 0 without the file.
std::time_t written_at(const std::string& path) {
  struct stat status {};
  return stat(path.c_str(), &status) == 0 ? status.st_mtim.tv_sec : 0;
}

WrittenTimes written_times(const std::string& directory) {
  const auto paths = dump_paths(directory);
  return {written_at(paths.at(0)), written_at(paths.at(1))};
}

// The dumps, and when the files that they came from were written.
std::pair<Dumps, WrittenTimes> read_with_times(const std::string& directory) {
  constexpr int kAttempts = 5;  // the files are written about once a second
  for (int attempt = 1;; ++attempt) {
    const WrittenTimes before = written_times(directory);
    Dumps dumps = read_dumps(directory);
    const WrittenTimes after = written_times(directory);
    const bool is_same = before.ipv4 == after.ipv4 && before.ipv6 == after.ipv6;
    if (is_same || attempt == kAttempts) return {std::move(dumps), after};
  }
}

// What the file says that the last call left; nothing in it when there is none.
Samples earlier_samples(const std::string& path) {
  constexpr size_t kLargestFile = size_t{64} << 20;
  const FileDescriptor file = open_to_read(path);
  if (!file.valid()) {
    if (errno == ENOENT) return {};
    throw unreadable(fmt::format("{}: {}", path, std::strerror(errno)));
  }
  if (!is_regular_file(file)) throw unreadable(path + ": not a regular file");
  return read_samples(read_up_to(file, kLargestFile));
}

int run_metrics(const MetricsOptions& options) {
  const auto [dumps, written] = read_with_times(options.directory);
  if (options.output.empty()) {
    print_text(metrics_text(dumps, written, std::nullopt));
    return kExitOk;
  }
  const FileReplacement replacement =
      replace_file(options.output, metrics_text(dumps, written, earlier_samples(options.output)));
  if (replacement.error != 0) {
    throw unreadable(
        fmt::format("{}: cannot be written: {}", options.output, std::strerror(replacement.error)));
  }
  return kExitOk;
}

}  // namespace

void add_metrics_command(CLI::App& program, Action& action) {
  const auto options = std::make_shared<MetricsOptions>();
  const CommandLine command(program, "metrics", "Prints the state as metrics for Prometheus.",
                            "lbctl metrics --output /var/lib/prometheus/node-exporter/wan_lb.prom");
  command.value("-o", options->directory, "The daemon's output directory (its option -o)")
      .value_name("DIR")
      .shows_default();
  command
      .value("--output", options->output,
             "Write the metrics to this file, by writing beside it and renaming. Counters go "
             "on from what the file says")
      .value_name("FILE");
  command.runs(action, [options] { return run_metrics(*options); });
}

}  // namespace lbctl
