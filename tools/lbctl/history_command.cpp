// lbctl history: when which interface failed and came back.
#include <ctime>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include <fmt/format.h>

#include "lbctl/command.h"
#include "lbctl/history_output.h"
#include "lbctl/history_sources.h"
#include "lbctl/history_summary.h"
#include "lbctl/print.h"
#include "lbctl/timeline_svg.h"
#include "platform/clock.h"

namespace lbctl {

namespace {

struct HistoryOptions {
  std::string since;
  std::string until;
  std::vector<std::string> logs;
  std::string journal;
  std::string picture;
  bool json = false;
};

std::optional<int64_t> time_of(const char* option, const std::string& text, std::time_t now) {
  if (text.empty()) return std::nullopt;
  const std::optional<int64_t> time = parse_history_time(text, now);
  if (!time) {
    throw usage_error(fmt::format(
        "{} {}: neither a time (2026-01-31T23:59:59Z) nor a span back (7d, 24h)", option, text));
  }
  return time;
}

int run_history(const HistoryOptions& options) {
  const timespec clock = wall_now();
  const std::time_t now = clock.tv_sec;
  const auto since = time_of("--since", options.since, now);
  const auto until = time_of("--until", options.until, now);
  std::vector<StateChange> changes;
  if (options.logs.empty()) changes = read_journal(options.journal, now);
  for (const std::string& log : options.logs) read_log_file(log, now, changes);

  const int64_t present = int64_t{now} * 1'000'000 + clock.tv_nsec / 1000;
  const int64_t end = until.value_or(present);
  if (since && *since > end) throw usage_error("--since is after --until");
  const History history = summarize(changes, since, end);
  if (!options.picture.empty()) write_picture(options.picture, history_picture(history));
  if (options.json) {
    print_document(history_document(history));
  } else {
    print_text(history_text(history, wants_colour()));
  }
  return kExitOk;
}

}  // namespace

void add_history_command(CLI::App& program, Action& action) {
  const auto options = std::make_shared<HistoryOptions>();
  const CommandLine command(
      program, "history",
      "State changes of the interfaces from the journal or a log file, how long each "
      "state lasted, and for how much of the time the interfaces were active.",
      "lbctl history --since 7d --svg week.svg");
  command.value("--since", options->since,
                "From this time on: RFC 3339, or a span back such as 7d or 24h; else from the "
                "first line");
  command.value("--until", options->until, "Up to this time; else up to now");
  command.flag("--json", options->json, "Print one JSON document (wan_lb/history/1)");
  command.value("--svg", options->picture, "Draw the timeline into this file");
  const Option log =
      command
          .values("--log", options->logs,
                  "Read this log file instead of the journal (- for standard input); several "
                  "are read in the order given, the oldest first")
          .one_value();
  command.value("--journal", options->journal, "Read the journal files in this directory")
      .excludes({log});
  command.runs(action, [options] { return run_history(*options); });
}

}  // namespace lbctl
