// Where things of a timeline stand: the scale, its ticks, and spans that are drawn together.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "lbctl/timeline_svg.h"

namespace lbctl {

struct TimelineScale {
  double begin, end, width;

  // Pixels from the left of the plot; what is outside of it is at its edge.
  double x(double time) const;
};

// A span as it is drawn. `count` above 1: so many were too narrow to be told apart.
struct DrawnSpan {
  double x, width;
  double from, to;
  size_t style;
  uint64_t count;
};

std::vector<DrawnSpan> layout_spans(const std::vector<TimelineSpan>& spans,
                                    const TimelineScale& scale);

// The times of the axis: about eight of them, at round values.
std::vector<double> axis_ticks(const Timeline& timeline);

// A time in full, and as it stands at the axis.
std::string time_text(const Timeline& timeline, double time);
std::string tick_text(const Timeline& timeline, double time);

}  // namespace lbctl
