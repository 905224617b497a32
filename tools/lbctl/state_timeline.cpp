#include "lbctl/state_timeline.h"

#include <algorithm>

namespace lbctl {

void StateTimeline::append(std::deque<Change>& changes, Change change) {
  if (!changes.empty()) {
    if (changes.back().state == change.state) return;
    change.time = std::max(change.time, changes.back().time);
  }
  changes.push_back(change);
  // The last one that is too old tells the state at the beginning.
  while (changes.size() > 1 && changes[1].time <= change.time - kSpan) changes.pop_front();
}

void StateTimeline::note(const std::string& interface, int64_t now, bool active, int64_t age) {
  append(changes_[interface], {now - std::max<int64_t>(age, 0), active ? kActive : kFailed});
}

void StateTimeline::note_unknown(int64_t now) {
  for (auto& [interface, changes] : changes_) append(changes, {now, kUnknown});
}

std::string StateTimeline::picture(const std::string& interface, int64_t now,
                                   size_t columns) const {
  std::string picture(columns, kUnknown);
  const auto found = changes_.find(interface);
  if (found == changes_.end() || columns == 0) return picture;
  const std::deque<Change>& changes = found->second;
  const int64_t start = now - kSpan;
  const auto count = static_cast<int64_t>(columns);
  // The column that a moment is in.
  const auto column_of = [start, count](int64_t time) {
    return std::clamp<int64_t>((time - start) * count / kSpan, 0, count - 1);
  };
  for (size_t at = 0; at < changes.size(); ++at) {
    const bool is_last = at + 1 == changes.size();
    const int64_t first = column_of(changes[at].time);
    const int64_t end_time = is_last ? now : changes[at + 1].time;
    if (end_time <= start) continue;
    // However short it was, it is seen.
    const int64_t last = std::clamp(is_last ? count : column_of(end_time - 1), first, count - 1);
    for (int64_t column = first; column <= last; ++column) {
      char& shown = picture[static_cast<size_t>(column)];
      if (shown != kFailed) shown = changes[at].state;
    }
  }
  return picture;
}

}  // namespace lbctl
