#include "lbctl/timeline_layout.h"

#include <algorithm>
#include <cmath>
#include <ctime>

#include <fmt/format.h>

#include "lbctl/print.h"

namespace lbctl {

namespace {

constexpr double kNarrowest = 0.7;  // pixels that can be seen

constexpr double kDay = 86400;
constexpr double kSteps[] = {1,        2,        5,         10,        15,        30,
                             60,       120,      300,       600,       900,       1800,
                             3600,     7200,     3 * 3600,  6 * 3600,  12 * 3600, kDay,
                             2 * kDay, 7 * kDay, 14 * kDay, 30 * kDay, 90 * kDay, 365 * kDay};
constexpr double kMostTicks = 9;

double tick_step(double length) {
  for (const double step : kSteps) {
    if (length / step <= kMostTicks) return step;
  }
  const double largest = 365 * kDay;
  return largest * std::ceil(length / largest / kMostTicks);
}

}  // namespace

double TimelineScale::x(double time) const {
  if (!(end > begin)) return 0;
  return std::clamp((time - begin) / (end - begin), 0.0, 1.0) * width;
}

std::vector<DrawnSpan> layout_spans(const std::vector<TimelineSpan>& spans,
                                    const TimelineScale& scale) {
  std::vector<DrawnSpan> drawn;
  bool is_open = false;  // the last one is narrow: the next narrow ones join it
  for (const TimelineSpan& span : spans) {
    const double x = scale.x(span.from);
    const double right = scale.x(span.to);
    const bool is_narrow = right - x < kNarrowest;
    if (is_narrow && is_open) {
      DrawnSpan& last = drawn.back();
      last.width = std::max(right - last.x, kNarrowest);
      last.to = span.to;
      ++last.count;
      // It is wide enough by now; more would hide how the changes lie.
      is_open = last.width <= kNarrowest;
      continue;
    }
    if (right <= x && !drawn.empty() && x >= scale.width) break;
    drawn.push_back({x, std::max(right - x, kNarrowest), span.from, span.to, span.style, 1});
    is_open = is_narrow;
  }
  return drawn;
}

std::vector<double> axis_ticks(const Timeline& timeline) {
  std::vector<double> ticks;
  if (!(timeline.end > timeline.begin)) return {timeline.begin};
  const double step = tick_step(timeline.end - timeline.begin);
  const double first = std::ceil(timeline.begin / step);
  const auto count = static_cast<int>(std::floor(timeline.end / step) - first) + 1;
  ticks.reserve(static_cast<size_t>(std::max(count, 0)));
  for (int at = 0; at < count; ++at) ticks.push_back((first + at) * step);
  return ticks;
}

std::string time_text(const Timeline& timeline, double time) {
  if (timeline.is_date) return rfc3339(static_cast<std::time_t>(time));
  return time < 60 ? fmt::format("{:.3f} s", time) : span(static_cast<int64_t>(time));
}

std::string tick_text(const Timeline& timeline, double time) {
  const auto seconds = static_cast<std::time_t>(time);
  if (!timeline.is_date) return span(seconds);
  const std::string text = rfc3339(seconds);  // 2026-01-31T23:59:59Z
  const double length = timeline.end - timeline.begin;
  if (length > kMostTicks * kDay / 2) return text.substr(0, 10);
  if (length > kDay / 2) return text.substr(5, 5) + " " + text.substr(11, 5);
  return text.substr(11, length < 600 ? 8 : 5);
}

}  // namespace lbctl
