#include "lbctl/history_sources.h"

#include <systemd/sd-journal.h>

#include <algorithm>
#include <cstring>
#include <memory>
#include <string_view>

#include <fmt/format.h>

#include "lbctl/command.h"
#include "lbctl/line_reader.h"

namespace lbctl {

namespace {

void add_in_order(StateChange change, std::vector<StateChange>& changes) {
  if (!changes.empty()) change.time = std::max(change.time, changes.back().time);
  changes.push_back(std::move(change));
}

struct JournalCloser {
  void operator()(sd_journal* journal) const { sd_journal_close(journal); }
};
using Journal = std::unique_ptr<sd_journal, JournalCloser>;

[[noreturn]] void fail(const std::string& directory, int result) {
  throw unreadable(fmt::format("{}: {}; --log FILE reads a log file instead",
                               directory.empty() ? "the journal" : directory,
                               std::strerror(-result)));
}

Journal open_journal(const std::string& directory) {
  sd_journal* opened = nullptr;
  const int result = directory.empty() ? sd_journal_open(&opened, SD_JOURNAL_LOCAL_ONLY)
                                       : sd_journal_open_directory(&opened, directory.c_str(), 0);
  if (result < 0) fail(directory, result);
  return Journal(opened);
}

// The value of the present entry's field; empty without one.
std::string_view field_of(sd_journal* journal, const char* name) {
  const void* data = nullptr;
  size_t size = 0;
  if (sd_journal_get_data(journal, name, &data, &size) < 0) return {};
  const std::string_view field(static_cast<const char*>(data), size);
  const size_t mark = field.find('=');
  return mark == std::string_view::npos ? std::string_view() : field.substr(mark + 1);
}

}  // namespace

void read_log_file(const std::string& path, std::time_t now, std::vector<StateChange>& changes) {
  LineReader lines(path);
  std::string_view line;
  for (auto found = lines.next(line); found != LineReader::Found::kEnd; found = lines.next(line)) {
    // A line that is too long is of another program.
    if (found == LineReader::Found::kTooLong) continue;
    if (auto change = parse_log_line(line, now)) add_in_order(std::move(*change), changes);
  }
}

std::vector<StateChange> read_journal(const std::string& directory) {
  const Journal journal = open_journal(directory);
  // The daemon's name for the log; whoever else takes it has other messages.
  int result = sd_journal_add_match(journal.get(), "SYSLOG_IDENTIFIER=wan_lb", 0);
  if (result >= 0) result = sd_journal_seek_head(journal.get());
  if (result < 0) fail(directory, result);
  std::vector<StateChange> changes;
  while ((result = sd_journal_next(journal.get())) > 0) {
    auto change = parse_state_message(field_of(journal.get(), "MESSAGE"));
    uint64_t time = 0;
    if (!change || sd_journal_get_realtime_usec(journal.get(), &time) < 0) continue;
    change->time = static_cast<int64_t>(time);
    add_in_order(std::move(*change), changes);
  }
  if (result < 0) fail(directory, result);
  return changes;
}

}  // namespace lbctl
