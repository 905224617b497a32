#include "platform/linux/log_flags.h"

#include <algorithm>
#include <cerrno>
#include <sstream>

#include "platform/clock.h"
#include "platform/regular_file.h"

namespace {

constexpr long kLookEveryMilliseconds = 250;

// A file of flags has a handful of lines. One that is wildly larger is not read to its end.
constexpr int kMaxLines = 1000;
constexpr size_t kMaxBytes = size_t{256} * 1024;
constexpr size_t kMaxLine = 254;
constexpr size_t kMaxProblems = 20;

// Takes the next line from the front of `text`, without its newline.
std::string_view take_line(std::string_view& text) {
  const std::string_view line = text.substr(0, text.find('\n'));
  text.remove_prefix(std::min(text.size(), line.size() + 1));
  return line;
}

bool same_time(timespec a, timespec b) { return a.tv_sec == b.tv_sec && a.tv_nsec == b.tv_nsec; }

}  // namespace

bool LogFlags::same(const Version& a, const Version& b) {
  return a.mode == b.mode && a.inode == b.inode && a.size == b.size &&
         same_time(a.modified, b.modified) && same_time(a.changed, b.changed);
}

LogFlags::Version LogFlags::present_version() const {
  struct stat status {};
  if (stat(path_.c_str(), &status) != 0) return {};
  return {status.st_mode, status.st_ino, status.st_size, status.st_mtim, status.st_ctim};
}

std::vector<std::string> LogFlags::refresh(timespec now) {
  if (looked_ && milliseconds_between(last_look_, now) < kLookEveryMilliseconds) return {};
  looked_ = true;
  last_look_ = now;
  const Version version = present_version();
  const bool changed = !same(version, version_);
  if (!changed && !unread_) return {};
  version_ = version;
  std::vector<std::string> problems = read();
  // Of a file that still cannot be opened that was told already.
  if (!changed && unread_) return {};
  return problems;
}

std::vector<std::string> LogFlags::read() {
  levels_.clear();
  all_repeats_ = false;
  unread_ = false;
  if (version_.mode == 0) return {};

  // A FIFO would hold up every thread that logs, a device might never end.
  const FileDescriptor file = open_to_read(path_);
  if (!file.valid()) {
    unread_ = true;
    return {path_ + ": cannot be opened: " + std::generic_category().message(errno)};
  }
  if (!is_regular_file(file)) return {path_ + ": is no regular file"};

  std::vector<std::string> problems;
  const std::string text = read_up_to(file, kMaxBytes);
  std::string_view rest = text;
  for (int number = 1; number <= kMaxLines && !rest.empty(); ++number) {
    const std::string_view line = take_line(rest);
    std::string problem;
    if (line.size() > kMaxLine) {
      problem = "the line is too long";
    } else if (line.find('\0') != std::string_view::npos) {
      problem = "the line has a NUL byte";
    } else {
      problem = apply(line);
    }
    if (!problem.empty() && problems.size() < kMaxProblems) {
      problems.push_back(path_ + ":" + std::to_string(number) + ": " + problem);
    }
  }
  return problems;
}

std::string LogFlags::apply(std::string_view line) {
  std::istringstream words(std::string(line.substr(0, line.find('#'))));
  std::string first;
  std::string second;
  std::string more;
  words >> first >> second >> more;
  if (first.empty()) return {};
  if (!more.empty()) return "'" + more + "' is too much";
  if (first == "repeats") {
    if (second != "all") return "'repeats' must be followed by 'all'";
    all_repeats_ = true;
    return {};
  }
  const auto number = [](const std::string& text) {
    return !text.empty() && text.size() <= 6 &&
                   text.find_first_not_of("0123456789") == std::string::npos
               ? std::stoi(text)
               : -1;
  };
  const int facility = number(first);
  if (facility < 0) return "'" + first + "' is neither a facility number nor 'repeats'";
  const int level = number(second);
  if (level < 0 || level > kHighestLevel) {
    return second.empty() ? "the level (0 to 3) is missing"
                          : "'" + second + "' is no level (0 to 3)";
  }
  levels_[facility] = level;
  return {};
}

bool LogFlags::wanted(int facility, int level) const {
  const auto found = levels_.find(facility);
  return level <= (found == levels_.end() ? kDefaultLevel : found->second);
}
