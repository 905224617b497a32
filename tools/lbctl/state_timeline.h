// The states of the last minutes, as lines of characters.
#pragma once

#include <cstdint>
#include <deque>
#include <map>
#include <string>

namespace lbctl {

class StateTimeline {
 public:
  static constexpr char kActive = '=';
  static constexpr char kFailed = 'x';
  static constexpr char kUnknown = '.';

  // What is kept, in seconds.
  static constexpr int64_t kSpan = 300;

  // At `now` (seconds, never falling) the interface is in the state, and has been for `age`
  // seconds.
  void note(const std::string& interface, int64_t now, bool active, int64_t age);

  // At `now` nothing is known of any interface.
  void note_unknown(int64_t now);

  // The last kSpan seconds up to `now` in `columns` characters, the newest on the right. A
  // character stands for failed when the interface was so at any time of its seconds.
  std::string picture(const std::string& interface, int64_t now, size_t columns) const;

 private:
  struct Change {
    int64_t time;
    char state;
  };
  static void append(std::deque<Change>& changes, Change change);

  std::map<std::string, std::deque<Change>> changes_;  // by interface, the oldest first
};

}  // namespace lbctl
