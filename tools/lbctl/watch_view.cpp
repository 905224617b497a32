#include "lbctl/watch_view.h"

#include <utility>

#include <fmt/format.h>

#include "lbctl/status_text.h"

namespace lbctl {

namespace {

std::optional<Colour> colour_of(char state) {
  if (state == StateTimeline::kActive) return Colour::kGreen;
  if (state == StateTimeline::kFailed) return Colour::kRed;
  return Colour::kDim;
}

}  // namespace

void WatchView::update(Status status, int64_t now) {
  const bool is_first = !status_;
  for (const TextLine& line : status_tables(status)) {
    if (line.subject.empty()) continue;
    const auto [entry, is_new] = shown_.try_emplace(line.subject);
    Shown& shown = entry->second;
    if (is_new ? !is_first : shown.content != line.content) {
      shown.is_marked = true;
      shown.changed = now;
    }
    shown.content = line.content;
  }
  if (status.stale) timeline_.note_unknown(now);
  for (const InterfaceDump& interface : status.interfaces) {
    if (status.stale) break;
    // The age is that of when the file was written.
    timeline_.note(interface_subject(interface), now, interface.active,
                   interface.change_age + status.age());
  }
  status_ = std::move(status);
  complaint_.clear();
}

void WatchView::fail(const std::string& complaint, int64_t now) {
  complaint_ = complaint;
  timeline_.note_unknown(now);
}

std::vector<ViewLine> WatchView::head() const {
  std::vector<ViewLine> lines;
  lines.push_back(
      {{{{title_, Colour::kBold}, {"   q: quit, arrows: scroll", Colour::kDim}}, "", ""}});
  if (status_) lines.push_back({written_line(*status_)});
  if (!complaint_.empty()) lines.push_back({{{{plain(complaint_), Colour::kRed}}, "", ""}});
  lines.emplace_back();
  return lines;
}

std::vector<ViewLine> WatchView::body(int64_t now) const {
  std::vector<ViewLine> lines;
  if (!status_) return lines;
  std::map<std::string, const InterfaceDump*> interfaces;
  for (const InterfaceDump& interface : status_->interfaces)
    interfaces.emplace(interface_subject(interface), &interface);
  for (TextLine& line : status_tables(*status_)) {
    const auto shown = shown_.find(line.subject);
    const bool marked = shown != shown_.end() && shown->second.is_marked &&
                        now - shown->second.changed < kMarkedFor;
    const auto interface = interfaces.find(line.subject);
    lines.push_back({std::move(line), marked});
    if (interface != interfaces.end()) lines.push_back({timeline_line(*interface->second, now)});
  }
  return lines;
}

TextLine WatchView::timeline_line(const InterfaceDump& interface, int64_t now) const {
  constexpr size_t kColumns = 60;
  const std::string label = fmt::format("  last {} min ", StateTimeline::kSpan / 60);
  TextLine line{{{label, Colour::kDim}}, "", ""};
  for (const char state : timeline_.picture(interface_subject(interface), now, kColumns)) {
    if (line.parts.size() == 1 || line.parts.back().text.back() != state)
      line.parts.push_back({"", colour_of(state)});
    line.parts.back().text += state;
  }
  return line;
}

}  // namespace lbctl
