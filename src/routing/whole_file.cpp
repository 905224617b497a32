#include "routing/whole_file.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstdlib>

#include "platform/file_descriptor.h"
#include "platform/regular_file.h"

namespace {

constexpr mode_t kNewFileMode = 0666;
constexpr mode_t kModeBits = 07777;

// 0, or the errno value of the failure.
int write_all(int fd, const std::string& text) {
  for (size_t written = 0; written < text.size();) {
    const ssize_t count =
        pwrite(fd, text.data() + written, text.size() - written, static_cast<off_t>(written));
    if (count < 0 && errno == EINTR) continue;
    if (count < 0) return errno;
    if (count == 0) return EIO;
    written += static_cast<size_t>(count);
  }
  return 0;
}

// Where the links of `path` lead; empty when nothing is there.
std::string followed(const std::string& path) {
  char resolved[PATH_MAX];
  return realpath(path.c_str(), resolved) == nullptr ? std::string() : resolved;
}

// Hidden, so that a pattern with which a reader picks its files does not pick this one.
std::string name_beside(const std::string& path) {
  const size_t name = path.rfind('/') + 1;  // 0 without a directory
  return path.substr(0, name) + '.' + path.substr(name) + ".new";
}

// Writes the text beside `path` and renames it over. `old` is null where there is no file yet.
bool replace_by_renaming(const std::string& path, const struct stat* old, const std::string& text) {
  const std::string beside = name_beside(path);
  unlink(beside.c_str());  // what an interrupted write left
  const FileDescriptor file(
      open(beside.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, kNewFileMode));
  if (!file.valid()) return false;
  const bool same_owner_and_mode =
      old == nullptr || (fchown(file.get(), old->st_uid, old->st_gid) == 0 &&
                         fchmod(file.get(), old->st_mode & kModeBits) == 0);
  if (same_owner_and_mode && write_all(file.get(), text) == 0 &&
      rename(beside.c_str(), path.c_str()) == 0) {
    return true;
  }
  unlink(beside.c_str());
  return false;
}

FileReplacement overwrite(const std::string& path, const std::string& text) {
  const FileDescriptor file(
      open(path.c_str(), O_WRONLY | O_CREAT | O_NONBLOCK | O_NOCTTY | O_CLOEXEC, kNewFileMode));
  if (!file.valid()) return {false, errno};
  const auto size = static_cast<off_t>(text.size());
  // A disk that is full must not leave half a text. File systems that cannot reserve room are
  // written to all the same.
  if (size > 0 && fallocate(file.get(), FALLOC_FL_KEEP_SIZE, 0, size) != 0 &&
      (errno == ENOSPC || errno == EDQUOT || errno == EFBIG)) {
    return {true, errno};
  }
  int error = write_all(file.get(), text);
  if (error == 0 && ftruncate(file.get(), size) != 0) error = errno;
  return {true, error};
}

}  // namespace

FileReplacement replace_file(const std::string& path, const std::string& text) {
  if (is_special_file(path)) return {true, EINVAL};
  struct stat old {};
  const std::string target = followed(path);
  const bool exists = !target.empty() && stat(target.c_str(), &old) == 0;
  if (exists && eaccess(target.c_str(), W_OK) != 0) return {false, errno};
  // A link that leads nowhere yet is filled through: it would not outlive a renaming.
  const bool is_dangling = !exists && lstat(path.c_str(), &old) == 0;
  const bool can_rename = exists ? S_ISREG(old.st_mode) : !is_dangling;
  if (can_rename && replace_by_renaming(exists ? target : path, exists ? &old : nullptr, text)) {
    return {true, 0};
  }
  return overwrite(path, text);
}
