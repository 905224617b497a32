#include "lbctl/recorder_watch.h"

#include <poll.h>
#include <sys/inotify.h>

#include <csignal>
#include <cstring>
#include <span>
#include <string_view>

#include "platform/regular_file.h"

namespace lbctl {

namespace {

constexpr timespec kLongestWait{.tv_sec = 0, .tv_nsec = 250'000'000};
constexpr size_t kLargestFile = size_t{64} << 20;

bool is_same(const struct stat& a, const struct stat& b) {
  return a.st_ino == b.st_ino && a.st_dev == b.st_dev && a.st_size == b.st_size &&
         a.st_mtim.tv_sec == b.st_mtim.tv_sec && a.st_mtim.tv_nsec == b.st_mtim.tv_nsec;
}

}  // namespace

DumpWatch::DumpWatch(const std::string& output_directory)
    : directory_(output_directory + "/wlb_dump"),
      inotify_(inotify_init1(IN_NONBLOCK | IN_CLOEXEC)) {
  const std::vector<std::string> paths = dump_paths(output_directory);
  for (size_t at = 0; at < files_.size(); ++at) files_.at(at).path = paths.at(at);
  watch_directory();
}

void DumpWatch::watch_directory() {
  if (inotify_.valid() && watched_ < 0)
    watched_ = inotify_add_watch(inotify_.get(), directory_.c_str(), IN_CLOSE_WRITE | IN_MOVED_TO);
}

void DumpWatch::wait(const sigset_t& while_waiting) {
  watch_directory();
  pollfd event{.fd = inotify_.get(), .events = POLLIN, .revents = 0};  // below 0: not looked at
  if (ppoll(&event, 1, &kLongestWait, &while_waiting) < 1) return;
  alignas(inotify_event) std::array<char, 4096> buffer;
  const ssize_t size = read(inotify_.get(), buffer.data(), buffer.size());
  for (ssize_t at = 0; at < size;) {
    inotify_event header;
    std::memcpy(&header, buffer.data() + at, sizeof(header));
    const std::string_view name(buffer.data() + at + sizeof(header));
    if ((header.mask & IN_IGNORED) != 0) watched_ = -1;  // the directory has gone
    for (File& file : files_) {
      if ((header.mask & IN_Q_OVERFLOW) != 0 || (header.len != 0 && file.path.ends_with(name)))
        file.was_told = true;
    }
    at += static_cast<ssize_t>(sizeof(header) + header.len);
  }
}

std::optional<std::vector<InterfaceDump>> DumpWatch::read_new(bool ipv6) {
  File& file = files_.at(ipv6 ? 1 : 0);
  const FileDescriptor opened = open_to_read(file.path);
  struct stat status {};
  if (!opened.valid() || fstat(opened.get(), &status) != 0 || !S_ISREG(status.st_mode))
    return std::nullopt;
  if (!file.was_told && is_same(status, file.read)) return std::nullopt;
  file.was_told = false;
  const std::string bytes = read_up_to(opened, kLargestFile);
  auto parsed = parse_outbounds(
      std::span(reinterpret_cast<const uint8_t*>(bytes.data()), bytes.size()), ipv6);
  if (!parsed.error.empty() || parsed.values.empty()) return std::nullopt;
  // A part of what is being written, or another configuration: then it stays so.
  if (parsed.values.size() < file.records && !is_same(status, file.fewer)) {
    file.fewer = status;
    return std::nullopt;
  }
  file.read = status;
  file.records = parsed.values.size();
  return std::move(parsed.values);
}

}  // namespace lbctl
