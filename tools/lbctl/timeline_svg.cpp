#include "lbctl/timeline_svg.h"

#include <algorithm>
#include <cmath>
#include <cstring>
#include <ctime>

#include <fmt/format.h>

#include "lbctl/command.h"
#include "lbctl/print.h"
#include "lbctl/timeline_layout.h"
#include "routing/whole_file.h"

namespace lbctl {

namespace {

// Pixels.
constexpr double kPlotWidth = 1000;
constexpr double kNoteWidth = 90;
constexpr double kTitleHeight = 40;
constexpr double kLaneHeight = 20;
constexpr double kOutcomeHeight = 8;
constexpr double kLaneGap = 10;
constexpr double kLegendLine = 18;
constexpr double kAxisHeight = 30;
constexpr double kCharacterWidth = 7.2;

constexpr size_t kLongestLabel = 40;
constexpr size_t kMostLegendEntries = 24;

std::string cut(const std::string& text, size_t length) {
  return text.size() <= length ? text : text.substr(0, length - 3) + "...";
}

// Draws one timeline, from top to bottom.
class Picture {
 public:
  explicit Picture(const Timeline& timeline)
      : timeline_(timeline), scale_{timeline.begin, timeline.end, kPlotWidth} {
    size_t longest = 0;
    for (const TimelineLane& lane : timeline.lanes)
      longest = std::max(longest, cut(lane.label, kLongestLabel).size());
    left_ = 20 + kCharacterWidth * static_cast<double>(longest);
  }

  std::string draw() {
    y_ = kTitleHeight;
    for (const TimelineLane& lane : timeline_.lanes) draw_lane(lane);
    draw_axis();
    draw_legend();
    const double width = left_ + kPlotWidth + kNoteWidth;
    return fmt::format(
               "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n"
               "<svg xmlns=\"http://www.w3.org/2000/svg\" version=\"1.1\" width=\"{0:.0f}\" "
               "height=\"{1:.0f}\" viewBox=\"0 0 {0:.0f} {1:.0f}\" font-family=\"sans-serif\" "
               "font-size=\"12\">\n"
               "<title>{2}</title>\n"
               "<rect width=\"100%\" height=\"100%\" fill=\"#ffffff\"/>\n",
               width, y_, xml_text(timeline_.title)) +
           text_at(left_, 24, timeline_.title, " font-size=\"16\"") + body_ + "</svg>\n";
  }

 private:
  static std::string text_at(double x, double y, const std::string& text,
                             const char* attributes = "") {
    return fmt::format("<text x=\"{:.1f}\" y=\"{:.1f}\" fill=\"#222222\"{}>{}</text>\n", x, y,
                       attributes, xml_text(text));
  }

  void draw_box(double x, double y, double width, double height, const std::string& colour,
                const std::string& title) {
    body_ += fmt::format(
        "<rect x=\"{:.2f}\" y=\"{:.1f}\" width=\"{:.2f}\" height=\"{:.1f}\" fill=\"{}\">"
        "<title>{}</title></rect>\n",
        left_ + x, y, width, height, colour, xml_text(title));
  }

  void draw_lane(const TimelineLane& lane) {
    body_ += text_at(10, y_ + kLaneHeight - 5, cut(lane.label, kLongestLabel));
    draw_box(0, y_, kPlotWidth, kLaneHeight, "#eceff1", "unknown or nothing");
    for (const DrawnSpan& drawn : layout_spans(lane.spans, scale_)) draw_span(drawn);
    body_ += text_at(left_ + kPlotWidth + 8, y_ + kLaneHeight - 5, lane.note);
    y_ += kLaneHeight;
    if (!lane.outcomes.empty()) {
      for (const OutcomeCount& count : lane.outcomes) draw_outcomes(count);
      y_ += kOutcomeHeight;
    }
    y_ += kLaneGap;
  }

  void draw_span(const DrawnSpan& drawn) {
    const std::string times =
        fmt::format("{} to {}", time_text(timeline_, drawn.from), time_text(timeline_, drawn.to));
    if (drawn.count > 1) {
      draw_box(drawn.x, y_, drawn.width, kLaneHeight, "#e8a33d",
               fmt::format("{} changes, {}", drawn.count, times));
      return;
    }
    const TimelineStyle& style = timeline_.styles.at(drawn.style);
    const double height = style.is_low ? kLaneHeight * 0.6 : kLaneHeight;
    draw_box(drawn.x, y_ + kLaneHeight - height, drawn.width, height, style.colour,
             fmt::format("{}, {}", style.name, times));
  }

  // The share of bad outcomes, as the height of the bar.
  void draw_outcomes(const OutcomeCount& count) {
    const uint64_t all = count.good + count.bad;
    if (all == 0) return;
    const double x = scale_.x(count.from);
    const double width = std::max(scale_.x(count.to) - x, 0.5);
    const double bad =
        std::ceil(kOutcomeHeight * static_cast<double>(count.bad) / static_cast<double>(all));
    const std::string title =
        fmt::format("{} of {} outcomes failed, {} to {}", count.bad, all,
                    time_text(timeline_, count.from), time_text(timeline_, count.to));
    if (bad < kOutcomeHeight) draw_box(x, y_ + bad, width, kOutcomeHeight - bad, "#a5d6b7", title);
    if (bad > 0) draw_box(x, y_, width, bad, "#8e1b22", title);
  }

  void draw_axis() {
    body_ += fmt::format(
        "<g stroke=\"#90a4ae\"><line x1=\"{0:.1f}\" y1=\"{1:.1f}\" x2=\"{2:.1f}\" y2=\"{1:.1f}\"/>",
        left_, y_, left_ + kPlotWidth);
    const std::vector<double> ticks = axis_ticks(timeline_);
    for (const double tick : ticks) {
      body_ += fmt::format(
          "<line x1=\"{0:.1f}\" y1=\"{1:.1f}\" x2=\"{0:.1f}\" y2=\"{2:.1f}\" "
          "stroke-opacity=\"0.4\"/>",
          left_ + scale_.x(tick), kTitleHeight, y_ + 4);
    }
    body_ += "</g>\n";
    for (const double tick : ticks)
      body_ += text_at(left_ + scale_.x(tick), y_ + 17, tick_text(timeline_, tick),
                       " text-anchor=\"middle\"");
    y_ += kAxisHeight;
  }

  void draw_legend() {
    size_t entries = 0;
    for (const TimelineStyle& style : timeline_.styles) {
      if (!style.is_in_legend) continue;
      if (++entries > kMostLegendEntries) {
        body_ += text_at(left_ + 20, y_ + 11, "... and more");
        y_ += kLegendLine;
        break;
      }
      draw_box(0, y_, 14, 12, style.colour, style.name);
      body_ += text_at(left_ + 20, y_ + 11, cut(style.name, 150));
      y_ += kLegendLine;
    }
    y_ += kLaneGap;
  }

  const Timeline& timeline_;
  const TimelineScale scale_;
  double left_ = 0;
  double y_ = 0;
  std::string body_;
};

// The length of the UTF-8 character at the start of `text`, 0 for what is none, or what XML does
// not take.
size_t character_length(std::string_view text) {
  const auto byte = [&text](size_t at) { return static_cast<unsigned char>(text[at]); };
  const unsigned char first = byte(0);
  if (first < 0x80) return first >= 0x20 && first != 0x7F ? 1 : 0;
  const size_t length = first >= 0xF0 ? 4 : first >= 0xE0 ? 3 : 2;
  if (first < 0xC2 || first > 0xF4 || text.size() < length) return 0;
  uint32_t code = first & (0xFFU >> (length + 1));
  for (size_t at = 1; at < length; ++at) {
    if ((byte(at) & 0xC0U) != 0x80) return 0;
    code = code << 6U | (byte(at) & 0x3FU);
  }
  const uint32_t least = length == 4 ? 0x10000 : length == 3 ? 0x800 : 0x80;
  const bool is_surrogate = code >= 0xD800 && code <= 0xDFFF;
  const bool is_control = code >= 0x80 && code <= 0x9F;
  const bool is_none = code == 0xFFFE || code == 0xFFFF;
  return code < least || code > 0x10FFFF || is_surrogate || is_control || is_none ? 0 : length;
}

}  // namespace

std::vector<TimelineStyle> state_styles() {
  return {{.name = "active", .colour = "#2e9e5b", .is_low = true},
          {.name = "failed", .colour = "#d0454c"}};
}

std::string timeline_colour(size_t number) {
  static constexpr const char* kColours[] = {"#4477aa", "#ee9944", "#228833", "#aa3377", "#66ccee",
                                             "#997700", "#882255", "#44aa99", "#6655bb", "#777777"};
  return kColours[number % std::size(kColours)];
}

std::string draw_timeline(const Timeline& timeline) { return Picture(timeline).draw(); }

std::string xml_text(std::string_view text) {
  std::string result;
  while (!text.empty()) {
    const size_t length = character_length(text);
    if (length == 0) {
      result += '?';
      text.remove_prefix(1);
      continue;
    }
    switch (text.front()) {
      case '&':
        result += "&amp;";
        break;
      case '<':
        result += "&lt;";
        break;
      case '>':
        result += "&gt;";
        break;
      case '"':
        result += "&quot;";
        break;
      default:
        result += text.substr(0, length);
    }
    text.remove_prefix(length);
  }
  return result;
}

void write_picture(const std::string& path, const std::string& svg) {
  const FileReplacement result = replace_file(path, svg);
  if (result.error != 0)
    throw unreadable(fmt::format("{}: cannot be written: {}", path, std::strerror(result.error)));
}

}  // namespace lbctl
