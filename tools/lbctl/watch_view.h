// What the live view shows, line by line; it knows no terminal.
#pragma once

#include <cstdint>
#include <map>
#include <string>
#include <vector>

#include "lbctl/state_timeline.h"
#include "lbctl/status_model.h"
#include "lbctl/text_table.h"

namespace lbctl {

struct ViewLine {
  TextLine line;
  bool marked = false;  // it changed a moment ago
};

class WatchView {
 public:
  // So many seconds what changed is marked.
  static constexpr int64_t kMarkedFor = 10;

  // `title` says what is watched.
  explicit WatchView(std::string title) : title_(std::move(title)) {}

  // What was read at `now` (seconds, never falling).
  void update(Status status, int64_t now);

  // It could not be read: what was shown stays, with a note.
  void fail(const std::string& complaint, int64_t now);

  // Lines that stay in view, then those that may be scrolled.
  std::vector<ViewLine> head() const;
  std::vector<ViewLine> body(int64_t now) const;

 private:
  struct Shown {
    std::string content;
    int64_t changed = 0;
    bool is_marked = false;
  };
  TextLine timeline_line(const InterfaceDump& interface, int64_t now) const;

  const std::string title_;
  std::optional<Status> status_;
  std::string complaint_;
  StateTimeline timeline_;
  std::map<std::string, Shown> shown_;  // by the lines' subjects
};

}  // namespace lbctl
