// Brackets, and what stands beside them.
#include "lbctl/check_outline.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <ctime>

#include "lbctl/check_fixture.h"

namespace lbctl {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

// A health section that no rule uses: of that more is said than here matters.
std::vector<std::string> told_of_blocks(const std::string& text) {
  std::vector<std::string> found = told(text);
  std::erase_if(found, [](const std::string& line) { return line.ends_with(" unserved"); });
  return found;
}

}  // namespace

TEST(CheckOutlineTest, ClosingBracketsMayStandBeforeTheNextBlock) {
  EXPECT_THAT(told_of_blocks("health {\ninterface a {\n} interface b {\n} }\n"), IsEmpty());
}

TEST(CheckOutlineTest, TheExtraBracketIsToldOnce) {
  EXPECT_THAT(told_of_blocks("health {\n}\n}\n}\n"), ElementsAre("3:1 brackets"));
}

TEST(CheckOutlineTest, TheBlockThatIsNeverClosedIsFoundByWhatFollows) {
  EXPECT_THAT(told_of_blocks("health {\n interface a {\n interface b {\n }\n}\n"),
              ElementsAre("2:2 brackets"));
  EXPECT_THAT(told_of_blocks("health {\n interface a {\n }\nrule 1_ipv4 {\n}\n"),
              ElementsAre("1:1 brackets", "2:2 unused-interface", "4:1 empty-rule"));
  EXPECT_THAT(told_of_blocks("health {\n interface a {\n }\n"), ElementsAre("1:1 brackets"));
}

TEST(CheckOutlineTest, ABlockWithoutItsBracketIsTold) {
  EXPECT_THAT(told_of_blocks("health {\n interface a\n  nexthop dhcp\n }\n}\n"),
              ElementsAre("2:2 brackets"));
  EXPECT_THAT(told_of_blocks("health {\n interface a\n}\n"), ElementsAre("2:2 brackets"));
}

TEST(CheckOutlineTest, GluedBracketsAreTold) {
  EXPECT_THAT(told_of_blocks("health{\n}\n"), ElementsAre("1:7 brackets"));
  EXPECT_THAT(told_of_blocks("health {\n interface a {}\n}\n"), ElementsAre("2:14 brackets"));
  EXPECT_THAT(told_of_blocks("health {\n};\n"), ElementsAre("2:1 brackets"));
}

TEST(CheckOutlineTest, ABracketAloneBelongsToTheLineBefore) {
  EXPECT_THAT(told_of_blocks("health\n\n# comment\n{\n interface a\n {\n }\n}\n"),
              ElementsAre("4:1 brace-alone", "6:2 brace-alone"));
  EXPECT_THAT(told_of_blocks("{\n}\n"), ElementsAre("1:1 brace-alone"));
  EXPECT_THAT(told_of_blocks("health {\n} {\n}\n"), ElementsAre("2:3 brace-alone"));
}

TEST(CheckOutlineTest, TextBesideABracketIsToldAndUnderstood) {
  EXPECT_THAT(told_of_blocks("health { interface a {\n}\n}\n"),
              ElementsAre("1:10 text-on-block-line"));
  EXPECT_THAT(told_of_blocks("health {\n interface a {\n nexthop dhcp }\n}\n"),
              ElementsAre("3:2 text-on-block-line"));
}

TEST(CheckOutlineTest, QuotesEncloseTheWholeValue) {
  EXPECT_THAT(told_of_blocks("health {\n interface \"a\" {\n }\n}\n"), IsEmpty());
  EXPECT_THAT(told_of_blocks("health {\n interface x\"a\" {\n }\n}\n"),
              ElementsAre("2:12 extra-text"));
  EXPECT_THAT(told_of_blocks("health {\n interface a \"b\" {\n }\n}\n"),
              ElementsAre("2:12 extra-text"));
  EXPECT_THAT(told_of_blocks("health {\n interface \"a\"b {\n }\n}\n"),
              ElementsAre("2:12 extra-text"));
}

TEST(CheckOutlineTest, BlocksDeeperThanTheReaderGoesAreTold) {
  std::string text;
  for (int i = 0; i < 33; ++i) text += "a {\n";
  for (int i = 0; i < 33; ++i) text += "}\n";
  EXPECT_THAT(told_of_blocks(text), ElementsAre("1:1 unknown-section", "32:3 brackets"));
  EXPECT_THAT(told_of_blocks(text + text),
              ElementsAre("1:1 unknown-section", "32:3 brackets", "67:1 unknown-section"));
}

TEST(CheckOutlineTest, BlocksThatAreNeverClosedAreToldUpToTheDeepest) {
  constexpr int kMany = 50'000;
  std::string text;
  for (int i = 0; i < kMany; ++i) text += "health {\ninterface a {\n";
  const std::clock_t begin = std::clock();
  // Each section ends the block before it; none of these blocks has an end of its own.
  EXPECT_GE(told_of_blocks(text).size(), size_t{kMany});
  std::string unknown;
  for (int i = 0; i < kMany; ++i) unknown += "a {\n";
  std::vector<std::string> expected = {"1:1 brackets", "1:1 unknown-section"};
  for (int i = 2; i <= 31; ++i) expected.push_back(fmt::format("{}:1 brackets", i));
  expected.emplace_back("32:3 brackets");
  EXPECT_THAT(told_of_blocks(unknown), testing::ElementsAreArray(expected));
  // With the depth it would take more than half a minute, with a sanitizer minutes.
  EXPECT_LT((std::clock() - begin) / CLOCKS_PER_SEC, 20);
}

}  // namespace lbctl
