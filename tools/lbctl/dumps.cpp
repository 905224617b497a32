#include "lbctl/dumps.h"

#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <utility>

#include <fmt/format.h>

#include "config/health_test.h"
#include "lbctl/command.h"
#include "platform/file_descriptor.h"
#include "platform/regular_file.h"

namespace lbctl {

namespace {

// The daemon empties a file and writes it at once; only a slow disk lets a reader see the time
// between.
constexpr timespec kPause{.tv_sec = 0, .tv_nsec = 20'000'000};
constexpr int kMostPauses = 50;
constexpr int kMostPausesEmpty = 10;  // a file may also be empty for good

constexpr size_t kLargestFile = size_t{64} << 20;

struct DumpFile {
  std::string bytes;
  timespec written{};
};

// No value when there is no such file.
std::optional<DumpFile> read_file(const std::string& path) {
  const FileDescriptor file = open_to_read(path);
  if (!file.valid()) {
    if (errno == ENOENT) return std::nullopt;
    throw unreadable(fmt::format("{}: {}", path, std::strerror(errno)));
  }
  struct stat status {};
  if (!is_regular_file(file) || fstat(file.get(), &status) != 0)
    throw unreadable(path + ": not a regular file");
  DumpFile dump{.bytes = read_up_to(file, kLargestFile), .written = status.st_mtim};
  if (dump.bytes.size() >= kLargestFile)
    throw unreadable(path + ": not a dump file of the daemon (too large)");
  return dump;
}

bool is_later(const timespec& a, const timespec& b) {
  return a.tv_sec != b.tv_sec ? a.tv_sec > b.tv_sec : a.tv_nsec > b.tv_nsec;
}

// Reads what is there, and waits for the rest of what is half written.
class Reader {
 public:
  // `parse(bytes)` gives a Parsed; nothing, and no complaint, without a file.
  template <class Value, class Parse>
  std::vector<Value> read(const std::string& path, Parse parse) {
    int empties = 0;  // in a row
    for (int pauses = 0;; ++pauses) {
      const std::optional<DumpFile> file = read_file(path);
      if (!file) return {};
      empties = file->bytes.empty() ? empties + 1 : 0;
      Parsed<Value> parsed = parse(
          std::span(reinterpret_cast<const uint8_t*>(file->bytes.data()), file->bytes.size()));
      const bool may_change =
          !parsed.error.empty() || (file->bytes.empty() && empties <= kMostPausesEmpty);
      if (may_change && pauses < kMostPauses) {
        nanosleep(&kPause, nullptr);
        continue;
      }
      if (!parsed.error.empty()) throw unreadable(fmt::format("{}: {}", path, parsed.error));
      found_ = true;
      if (is_later(file->written, newest_)) newest_ = file->written;
      return std::move(parsed.values);
    }
  }

  // A file that is not read shows a daemon as well.
  void note(const std::string& path) { found_ = found_ || access(path.c_str(), F_OK) == 0; }

  bool has_found() const { return found_; }
  timespec newest() const { return newest_; }

 private:
  bool found_ = false;
  timespec newest_{};
};

std::string path_of(const std::string& output_directory, const char* name) {
  return output_directory + "/wlb_dump/" + name;
}

std::string outbounds_path(const std::string& output_directory, bool ipv6) {
  return path_of(output_directory, ipv6 ? "wlb_ipv6_outbounds.bin" : "wlb_ipv4_outbounds.bin");
}

}  // namespace

bool InterfaceDump::was_looked_at() const {
  return success_age != 0 || failure_age != 0 || change_age != 0 ||
         std::any_of(tests.begin(), tests.end(),
                     [](const TestDump& test) { return test.result != kResultNone; });
}

bool Dumps::is_stale(std::time_t now) const { return now - newest.tv_sec > kStaleAge; }

std::vector<std::string> dump_paths(const std::string& output_directory) {
  return {outbounds_path(output_directory, false), outbounds_path(output_directory, true),
          path_of(output_directory, "wlb_rules.bin"), path_of(output_directory, "wlb_routes.bin")};
}

Dumps read_dumps(const std::string& output_directory, const Families& families) {
  Reader reader;
  Dumps dumps;
  for (const bool ipv6 : {false, true}) {
    if (!families.has(ipv6)) {
      reader.note(outbounds_path(output_directory, ipv6));
      continue;
    }
    auto interfaces = reader.read<InterfaceDump>(
        outbounds_path(output_directory, ipv6),
        [ipv6](std::span<const uint8_t> bytes) { return parse_outbounds(bytes, ipv6); });
    for (InterfaceDump& interface : interfaces) dumps.interfaces.push_back(std::move(interface));
  }
  dumps.rules = reader.read<RuleDump>(path_of(output_directory, "wlb_rules.bin"), parse_rules);
  join_routes(dumps.rules,
              reader.read<RouteOfRule>(path_of(output_directory, "wlb_routes.bin"), parse_routes));
  if (!reader.has_found()) {
    throw unreadable(fmt::format(
        "{}: no dump files there; is the daemon running with this output directory (-o)?",
        path_of(output_directory, "")));
  }
  dumps.newest = reader.newest();
  return dumps;
}

}  // namespace lbctl
