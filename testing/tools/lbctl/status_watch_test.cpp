// What the live view shows, without a terminal: the timeline, marks and notes.
#include <gtest/gtest.h>

#include "lbctl/sample_dumps.h"
#include "lbctl/state_timeline.h"
#include "lbctl/watch_view.h"

namespace lbctl {
namespace {

constexpr size_t kColumns = 30;  // of 10 seconds

TEST(StateTimelineTest, UnknownUntilSomethingIsKnown) {
  StateTimeline timeline;
  EXPECT_EQ(timeline.picture("wan1", 1000, kColumns), std::string(30, '.'));
  timeline.note("wan1", 1000, true, 50);
  EXPECT_EQ(timeline.picture("wan1", 1000, kColumns), std::string(25, '.') + "=====");
  EXPECT_EQ(timeline.picture("wan2", 1000, kColumns), std::string(30, '.'));
}

TEST(StateTimelineTest, OldStatesFillTheWholeLine) {
  StateTimeline timeline;
  timeline.note("wan1", 1000, true, 100'000);
  EXPECT_EQ(timeline.picture("wan1", 1000, kColumns), std::string(30, '='));
  EXPECT_EQ(timeline.picture("wan1", 1200, kColumns), std::string(30, '='));
}

TEST(StateTimelineTest, ChangesMoveToTheLeft) {
  StateTimeline timeline;
  timeline.note("wan1", 1000, true, 1000);
  timeline.note("wan1", 1001, false, 0);
  timeline.note("wan1", 1002, false, 1);
  timeline.note("wan1", 1003, true, 0);
  // Failed for two seconds, which is seen all the same.
  EXPECT_EQ(timeline.picture("wan1", 1003, kColumns), std::string(29, '=') + "x");
  EXPECT_EQ(timeline.picture("wan1", 1103, kColumns),
            std::string(19, '=') + "x" + std::string(10, '='));
  EXPECT_EQ(timeline.picture("wan1", 1400, kColumns), std::string(30, '='));
}

TEST(StateTimelineTest, ATimeOfWhichNothingIsKnown) {
  StateTimeline timeline;
  timeline.note("wan1", 1000, false, 1000);
  timeline.note_unknown(1000);
  EXPECT_EQ(timeline.picture("wan1", 1100, kColumns), std::string(20, 'x') + std::string(10, '.'));
  timeline.note("wan1", 1100, true, 0);
  EXPECT_EQ(timeline.picture("wan1", 1150, kColumns),
            std::string(15, 'x') + std::string(10, '.') + "=====");
}

TEST(StateTimelineTest, ManyChangesAreForgottenInTime) {
  StateTimeline timeline;
  for (int64_t second = 0; second < 100'000; ++second)
    timeline.note("wan1", second, second % 2 == 0, 0);
  EXPECT_EQ(timeline.picture("wan1", 100'000, kColumns), std::string(30, 'x'));
}

Status status_of(std::vector<InterfaceDump> interfaces) {
  Status status;
  status.written = status.now = 1000;
  status.interfaces = std::move(interfaces);
  return status;
}

// The lines' texts; those that are marked begin with "*".
std::vector<std::string> texts(const std::vector<ViewLine>& lines) {
  std::vector<std::string> texts;
  for (const ViewLine& line : lines) texts.push_back((line.marked ? "*" : "") + line.line.text());
  return texts;
}

TEST(WatchViewTest, TheTimelineFollowsItsInterface) {
  WatchView view("title");
  EXPECT_TRUE(view.body(50).empty());
  InterfaceDump wan1 = interface_dump("wan1", true, "192.0.2.1");
  wan1.change_age = 150;
  view.update(status_of({wan1}), 50);
  const auto lines = texts(view.body(50));
  ASSERT_EQ(lines.size(), 4U);
  EXPECT_EQ(lines[2], "wan1       default  active  2 min 30 s   192.0.2.1");
  EXPECT_EQ(lines[3], "  last 5 min " + std::string(30, '.') + std::string(30, '='));
  EXPECT_EQ(texts(view.head())[0], "title   q: quit, arrows: scroll");
}

TEST(WatchViewTest, MarksWhatChangedForAWhile) {
  WatchView view("title");
  InterfaceDump wan1 = interface_dump("wan1", true, "192.0.2.1");
  wan1.tests = {test_dump("198.51.100.7", 1)};
  const InterfaceDump wan2 = interface_dump("wan2", true, "198.51.100.1");
  view.update(status_of({wan1, wan2}), 50);
  for (const ViewLine& line : view.body(50)) EXPECT_FALSE(line.marked) << line.line.text();

  ++wan1.change_age;  // ages are no change
  view.update(status_of({wan1, wan2}), 51);
  for (const ViewLine& line : view.body(51)) EXPECT_FALSE(line.marked) << line.line.text();

  wan1.active = false;
  wan1.tests[0] = test_dump("198.51.100.7", 2);
  view.update(status_of({wan1, wan2}), 52);
  for (const int64_t now : {52, 61}) {
    const auto lines = view.body(now);
    EXPECT_TRUE(lines[2].marked) << "wan1";
    EXPECT_FALSE(lines[3].marked) << "its timeline";
    EXPECT_TRUE(lines[4].marked) << "its test";
    EXPECT_FALSE(lines[5].marked) << "wan2";
  }
  for (const ViewLine& line : view.body(62)) EXPECT_FALSE(line.marked) << line.line.text();
}

TEST(WatchViewTest, MarksRoutesAndWhatIsNew) {
  WatchView view("title");
  const RuleDump rule = rule_dump(1, true, {}, {{"0.0.0.0/0", "192.0.2.1"}});
  Status status = status_of({});
  status.rules = {{rule, {{rule.routes[0], true, ""}}}};
  view.update(status, 50);
  status.rules[0].routes[0].in_force = false;
  status.interfaces = {interface_dump("wan1", true, "192.0.2.1")};
  view.update(status, 51);
  const auto lines = texts(view.body(51));
  EXPECT_EQ(lines.back(), "*  0.0.0.0/0  via 192.0.2.1  not in force");
  EXPECT_EQ(lines[2].substr(0, 5), "*wan1");
}

TEST(WatchViewTest, WhatWasShownStaysWhileNothingCanBeRead) {
  WatchView view("title");
  view.fail("no \033 files", 40);
  ASSERT_EQ(texts(view.head()).size(), 3U);
  EXPECT_EQ(texts(view.head())[1], "no ? files");
  EXPECT_TRUE(view.body(40).empty());

  view.update(status_of({interface_dump("wan1", true, "192.0.2.1")}), 50);
  const auto before = texts(view.body(50));
  EXPECT_EQ(texts(view.head())[1], "Written 1970-01-01T00:16:40Z, 0 s ago.");
  view.fail("gone", 55);
  EXPECT_EQ(texts(view.head())[2], "gone");
  const auto after = texts(view.body(55));
  ASSERT_EQ(after.size(), before.size());
  EXPECT_EQ(after[2], before[2]);
  view.update(status_of({interface_dump("wan1", true, "192.0.2.1")}), 60);
  EXPECT_EQ(texts(view.head()).size(), 3U) << "title, time, an empty line";
}

TEST(WatchViewTest, OfStaleFilesThePresentStateIsUnknown) {
  WatchView view("title");
  const InterfaceDump wan1 = interface_dump("wan1", true, "192.0.2.1");
  view.update(status_of({wan1}), 100);
  Status stale = status_of({wan1});
  stale.stale = true;
  stale.now += 20;
  view.update(stale, 120);
  EXPECT_EQ(texts(view.body(220))[3].substr(13), std::string(40, '=') + std::string(20, '.'));
  EXPECT_EQ(texts(view.head())[1].substr(0, 6), "STALE:");
}

}  // namespace
}  // namespace lbctl
