// Which messages are wanted: the file of log flags, looked at again as it changes.
//
// A line is `FACILITY LEVEL` (messages of the facility behind the guard levels 0 to LEVEL) or
// `repeats all` (no message is held back because it repeats one). "#" starts a comment. Without the
// file, or without a line for a facility, levels 0 to 2 are on.
#pragma once

#include <sys/stat.h>

#include <ctime>
#include <map>
#include <string>
#include <string_view>
#include <vector>

// Not synchronised: the caller locks.
class LogFlags {
 public:
  static constexpr int kDefaultLevel = 2;
  static constexpr int kHighestLevel = 3;

  explicit LogFlags(std::string path) : path_(std::move(path)) {}

  // Reads the file again if it changed, but looks at it a few times a second at most: calls in
  // between cost nothing. `now` is of the monotonic clock. Returns what is wrong with the file as
  // read now, one text per bad line; a bad line has no other effect.
  std::vector<std::string> refresh(timespec now);

  bool wanted(int facility, int level) const;
  bool all_repeats() const { return all_repeats_; }

 private:
  // What tells one state of the file from another.
  struct Version {
    mode_t mode = 0;  // 0: there is none
    ino_t inode = 0;
    off_t size = 0;
    timespec modified{};
    timespec changed{};
  };
  static bool same(const Version& a, const Version& b);

  Version present_version() const;
  std::vector<std::string> read();
  // What is wrong with the line; empty when nothing is.
  std::string apply(std::string_view line);

  const std::string path_;
  bool looked_ = false;
  timespec last_look_{};
  Version version_;
  bool unread_ = false;        // it could not be opened: tried again at every look
  std::map<int, int> levels_;  // facility -> highest level that is on
  bool all_repeats_ = false;
};
