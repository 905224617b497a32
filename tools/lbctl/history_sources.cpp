#include "lbctl/history_sources.h"

#include <systemd/sd-id128.h>
#include <systemd/sd-journal.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <filesystem>
#include <memory>
#include <optional>
#include <string_view>
#include <system_error>

#include <fmt/format.h>

#include "lbctl/command.h"
#include "lbctl/line_reader.h"
#include "lbctl/log_line.h"
#include "lbctl/print.h"

namespace lbctl {

namespace {

// Puts the changes of one source in order. One from the future (a clock that was not set yet) would
// take all that follow it along.
class Sorter {
 public:
  Sorter(std::time_t now, std::vector<StateChange>& changes)
      : end_((int64_t{now} + 1) * kMicroseconds), changes_(changes) {}

  void add(StateChange change) {
    if (change.time >= end_) {
      ++future_;
      return;
    }
    if (!changes_.empty()) change.time = std::max(change.time, changes_.back().time);
    changes_.push_back(std::move(change));
  }

  void tell_future(const std::string& source) const {
    if (future_ == 0) return;
    complain(
        fmt::format("{}: {} passed over, stamped later than now", source,
                    future_ == 1 ? "1 state change" : fmt::format("{} state changes", future_)));
  }

 private:
  int64_t end_;
  std::vector<StateChange>& changes_;
  size_t future_ = 0;
};

struct JournalCloser {
  void operator()(sd_journal* journal) const { sd_journal_close(journal); }
};
using Journal = std::unique_ptr<sd_journal, JournalCloser>;

constexpr const char* kSystemsPlaces[] = {"/var/log/journal", "/run/log/journal"};

std::string name_of(const std::string& directory) {
  return directory.empty() ? "the journal" : directory;
}

[[noreturn]] void fail(const std::string& directory, int result) {
  throw unreadable(fmt::format("{}: {}; --log FILE reads a log file instead", name_of(directory),
                               std::strerror(-result)));
}

Journal open_journal(const std::string& directory) {
  sd_journal* opened = nullptr;
  const int result = directory.empty() ? sd_journal_open(&opened, SD_JOURNAL_LOCAL_ONLY)
                                       : sd_journal_open_directory(&opened, directory.c_str(), 0);
  if (result < 0) fail(directory, result);
  return Journal(opened);
}

[[noreturn]] void fail_without_rights(const std::string& path) {
  throw unreadable(fmt::format("{}: {}; the groups adm and systemd-journal may read the journal",
                               path, std::strerror(EACCES)));
}

// What the library passes over in silence: the files that it cannot read.
class JournalFiles {
 public:
  // Those of `directory`, or of this machine's journal. A Failure without the rights to read them.
  explicit JournalFiles(const std::string& directory) {
    if (!directory.empty()) {
      look_into(directory, "");
      return;
    }
    sd_id128_t machine{};
    std::array<char, SD_ID128_STRING_MAX> name{};
    if (sd_id128_get_machine(&machine) < 0) return;
    sd_id128_to_string(machine, name.data());
    for (const char* const place : kSystemsPlaces) look_into(place, name.data());
  }

  bool has_readable() const { return has_readable_; }
  // Why one cannot be read, of several the first.
  const std::optional<std::string>& fault() const { return fault_; }

 private:
  // Without a name all directories in it are looked at, as the library does it.
  void look_into(const std::filesystem::path& directory, const std::string& inner) {
    for (const auto& entry : entries_of(directory)) {
      std::error_code error;
      if (!entry.is_directory(error)) {
        look_at(entry.path());
      } else if (inner.empty() || entry.path().filename() == inner) {
        for (const auto& file : entries_of(entry.path())) look_at(file.path());
      }
    }
  }

  static std::vector<std::filesystem::directory_entry> entries_of(
      const std::filesystem::path& directory) {
    std::error_code error;
    std::vector<std::filesystem::directory_entry> entries;
    for (std::filesystem::directory_iterator at(directory, error), end; !error && at != end;
         at.increment(error)) {
      entries.push_back(*at);
    }
    if (error == std::errc::permission_denied) fail_without_rights(directory.string());
    return entries;
  }

  void look_at(const std::filesystem::path& file) {
    const std::string extension = file.extension().string();
    if (extension != ".journal" && extension != ".journal~") return;
    sd_journal* opened = nullptr;
    const char* paths[] = {file.c_str(), nullptr};
    const int result = sd_journal_open_files(&opened, paths, 0);
    const Journal journal(opened);
    if (result >= 0) {
      has_readable_ = true;
    } else if (result == -EACCES || result == -EPERM) {
      // Another user's own: the daemon's messages are not in it.
      if (!file.filename().string().starts_with("user-")) fail_without_rights(file.string());
    } else if (result != -ENOENT && !fault_) {  // it may have been rotated away
      fault_ = fmt::format("{}: no journal file, or a damaged one ({})", file.string(),
                           std::strerror(-result));
    }
  }

  bool has_readable_ = false;
  std::optional<std::string> fault_;
};

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
  Sorter sorter(now, changes);
  std::string_view line;
  for (auto found = lines.next(line); found != LineReader::Found::kEnd; found = lines.next(line)) {
    // A line that is too long is of another program.
    if (found == LineReader::Found::kTooLong) continue;
    if (auto change = parse_log_line(line, now)) sorter.add(std::move(*change));
  }
  sorter.tell_future(lines.name());
}

std::vector<StateChange> read_journal(const std::string& directory, std::time_t now) {
  const Journal journal = open_journal(directory);
  const JournalFiles files(directory);
  if (!files.has_readable()) {
    throw unreadable(files.fault().value_or(fmt::format(
        "{}: there are no journal files; --log FILE reads a log file instead",
        directory.empty() ? fmt::format("{}", fmt::join(kSystemsPlaces, ", ")) : directory)));
  }
  // The daemon's name for the log; whoever else takes it has other messages.
  int result = sd_journal_add_match(journal.get(), "SYSLOG_IDENTIFIER=wan_lb", 0);
  if (result >= 0) result = sd_journal_seek_head(journal.get());
  if (result < 0) fail(directory, result);
  std::vector<StateChange> changes;
  Sorter sorter(now, changes);
  while ((result = sd_journal_next(journal.get())) > 0) {
    auto change = parse_state_message(field_of(journal.get(), "MESSAGE"));
    uint64_t time = 0;
    if (!change || sd_journal_get_realtime_usec(journal.get(), &time) < 0) continue;
    change->time = static_cast<int64_t>(time);
    sorter.add(std::move(*change));
  }
  if (result < 0) fail(directory, result);
  sorter.tell_future(name_of(directory));
  if (files.fault() && changes.empty()) throw unreadable(*files.fault());
  if (files.fault()) complain(*files.fault() + ": passed over");
  return changes;
}

}  // namespace lbctl
