// The picture: what is drawn together, and that texts of any kind leave it well formed.
#include "lbctl/timeline_svg.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <string>
#include <vector>

#include "lbctl/simulation_timeline.h"
#include "lbctl/timeline_layout.h"

using namespace lbctl;

namespace {

TEST(Timeline, TextIsEscaped) {
  EXPECT_EQ(xml_text("a<b>&\"c"), "a&lt;b&gt;&amp;&quot;c");
  EXPECT_EQ(xml_text("f\xC3\xBCr \xE2\x82\xAC \xF0\x9F\x98\x80"),
            "f\xC3\xBCr \xE2\x82\xAC \xF0\x9F\x98\x80");
  // Control characters, cut and overlong characters, surrogates, and what no text has.
  EXPECT_EQ(xml_text(std::string("\0\n\x1b\x7f", 4)), "????");
  EXPECT_EQ(xml_text("\xC3"), "?");
  EXPECT_EQ(xml_text("\xC0\xAF"), "??");
  EXPECT_EQ(xml_text("\xE0\x80\xAF"), "???");
  EXPECT_EQ(xml_text("\xED\xA0\x80"), "???");
  EXPECT_EQ(xml_text("\xEF\xBF\xBF"), "???");
  EXPECT_EQ(xml_text("\xF5\x80\x80\x80"), "????");
  EXPECT_EQ(xml_text("\xE2\x82<"), "??&lt;");
}

TEST(Timeline, NarrowSpansAreDrawnTogether) {
  std::vector<TimelineSpan> spans;
  for (int at = 0; at < 10'000; ++at)
    spans.push_back({at * 0.01, (at + 1) * 0.01, static_cast<size_t>(at % 2)});
  spans.push_back({100, 1000, kStyleActive});
  const auto drawn = layout_spans(spans, {0, 1000, 1000});
  EXPECT_LT(drawn.size(), 160U);
  uint64_t count = 0;
  double right = 0;
  for (const DrawnSpan& span : drawn) {
    EXPECT_GE(span.x, right - 0.71) << "drawn over each other";
    right = span.x + span.width;
    count += span.count;
  }
  EXPECT_EQ(count, spans.size());
  EXPECT_EQ(drawn.back().style, kStyleActive);
  EXPECT_DOUBLE_EQ(right, 1000);
}

TEST(Timeline, TicksAreRoundAndFew) {
  for (const double length : {0.5, 1.0, 7.0, 59.0, 3600.0, 86400.0, 7 * 86400.0, 40 * 86400.0,
                              366 * 86400.0, 40 * 366 * 86400.0}) {
    Timeline timeline;
    timeline.begin = 1'770'000'003;
    timeline.end = timeline.begin + length;
    const auto ticks = axis_ticks(timeline);
    EXPECT_LE(ticks.size(), 10U) << length;
    for (const double tick : ticks) {
      EXPECT_GE(tick, timeline.begin);
      EXPECT_LE(tick, timeline.end);
    }
  }
}

TEST(Timeline, APictureWithoutTimeIsOneAllTheSame) {
  Timeline timeline;
  timeline.styles = state_styles();
  timeline.lanes.push_back({"wan1", "", {{0, 0, kStyleFailed}}, {}});
  EXPECT_TRUE(draw_timeline(timeline).ends_with("</svg>\n"));
  EXPECT_EQ(draw_timeline(timeline).find("nan"), std::string::npos);
}

TEST(Timeline, OutcomesAreCountedHoweverLongTheTimeIs) {
  OutcomeCounter counter;
  uint64_t bad = 0;
  for (int64_t second = 100; second < 40'000; ++second) {
    counter.add(second, 100, second % 10 != 0);
    bad += second % 10 == 0 ? 1 : 0;
  }
  const auto counts = counter.counts(100);
  EXPECT_LE(counts.size(), 1000U);
  uint64_t all = 0;
  uint64_t failed = 0;
  double right = 100;
  for (const OutcomeCount& count : counts) {
    EXPECT_DOUBLE_EQ(count.from, right);
    right = count.to;
    all += count.good + count.bad;
    failed += count.bad;
  }
  EXPECT_EQ(all, 39'900U);
  EXPECT_EQ(failed, bad);
}

}  // namespace
