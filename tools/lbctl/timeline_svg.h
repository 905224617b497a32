// A timeline as a picture of its own (SVG 1.1): lanes of spans over one axis of time.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace lbctl {

// From one time to another in one style. Times are seconds, whatever they count from.
struct TimelineSpan {
  double from = 0;
  double to = 0;
  size_t style = 0;  // of Timeline::styles
};

// How many outcomes were good and bad in a span.
struct OutcomeCount {
  double from = 0;
  double to = 0;
  uint64_t good = 0;
  uint64_t bad = 0;
};

struct TimelineLane {
  std::string label;
  std::string note;                    // at the right end
  std::vector<TimelineSpan> spans;     // in the order of time
  std::vector<OutcomeCount> outcomes;  // drawn below the spans; may be empty
};

struct TimelineStyle {
  std::string name;  // in the legend, and of the spans
  std::string colour;
  bool is_low = false;  // does not fill the lane's height: to be told apart without colours
  bool is_in_legend = true;
};

struct Timeline {
  std::string title;
  double begin = 0;
  double end = 0;
  bool is_date = false;  // times count from 1970 and are shown as dates, else as spans
  std::vector<TimelineStyle> styles;
  std::vector<TimelineLane> lanes;
};

// The styles of an interface's states.
inline constexpr size_t kStyleActive = 0;
inline constexpr size_t kStyleFailed = 1;
std::vector<TimelineStyle> state_styles();

// A colour for the `number`th of things that are to be told apart.
std::string timeline_colour(size_t number);

// The picture. What is too small to be seen is drawn together.
std::string draw_timeline(const Timeline& timeline);

// Text as XML has it: marked characters, and no byte that is no text.
std::string xml_text(std::string_view text);

// Writes the picture to a file, of which nobody sees a half. A Failure that names it.
void write_picture(const std::string& path, const std::string& svg);

}  // namespace lbctl
