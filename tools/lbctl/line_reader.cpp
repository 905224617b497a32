#include "lbctl/line_reader.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include <fmt/format.h>

#include "lbctl/command.h"

namespace lbctl {

namespace {

constexpr size_t kBufferSize = size_t{1} << 20;

FileDescriptor open_named(const std::string& path) {
  return FileDescriptor(path == "-" ? fcntl(STDIN_FILENO, F_DUPFD_CLOEXEC, 3)
                                    : open(path.c_str(), O_RDONLY | O_NOCTTY | O_CLOEXEC));
}

}  // namespace

LineReader::LineReader(const std::string& path)
    : name_(path == "-" ? "standard input" : path), file_(open_named(path)), buffer_(kBufferSize) {
  struct stat status {};
  if (!file_.valid() || fstat(file_.get(), &status) != 0)
    throw unreadable(fmt::format("{}: {}", name_, std::strerror(errno)));
  if (S_ISDIR(status.st_mode)) throw unreadable(name_ + ": a directory");
}

LineReader::Found LineReader::next(std::string_view& line) {
  size_t searched = 0;
  while (true) {
    const char* const start = buffer_.data() + begin_;
    const size_t size = end_ - begin_;
    const auto* newline =
        static_cast<const char*>(std::memchr(start + searched, '\n', size - searched));
    if (newline != nullptr || size > kLongestLine) {
      ++number_;
      const size_t length = newline != nullptr ? static_cast<size_t>(newline - start) : size;
      if (length > kLongestLine) {
        line = {};
        skip_line();
        return Found::kTooLong;
      }
      begin_ += length + 1;
      line = {start, length};
      if (line.ends_with('\r')) line.remove_suffix(1);
      return Found::kLine;
    }
    searched = size;
    if (fill()) continue;
    if (size == 0) return Found::kEnd;
    ++number_;
    line = {buffer_.data() + begin_, end_ - begin_};
    begin_ = end_;
    return Found::kLine;
  }
}

bool LineReader::fill() {
  std::memmove(buffer_.data(), buffer_.data() + begin_, end_ - begin_);
  end_ -= begin_;
  begin_ = 0;
  while (true) {
    const ssize_t count = read(file_.get(), buffer_.data() + end_, buffer_.size() - end_);
    if (count < 0 && errno == EINTR) continue;
    if (count < 0) throw unreadable(fmt::format("{}: {}", name_, std::strerror(errno)));
    end_ += static_cast<size_t>(count);
    return count > 0;
  }
}

void LineReader::skip_line() {
  while (true) {
    const char* const start = buffer_.data() + begin_;
    const auto* newline = static_cast<const char*>(std::memchr(start, '\n', end_ - begin_));
    if (newline != nullptr) {
      begin_ += static_cast<size_t>(newline - start) + 1;
      return;
    }
    begin_ = end_;
    if (!fill()) return;
  }
}

}  // namespace lbctl
