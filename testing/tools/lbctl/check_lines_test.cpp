// Lines, words and places, and what the bytes of a file tell.
#include "lbctl/check_lines.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "lbctl/check_fixture.h"

namespace lbctl {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

std::vector<std::string> words(const std::string& text) {
  std::vector<std::string> found;
  for (const ReadLine& line : read_lines(text)) {
    for (const Word& word : line.words) {
      found.push_back(fmt::format("{}:{} {}", word.place.line, word.place.column, word.text));
    }
  }
  return found;
}

}  // namespace

TEST(CheckLinesTest, WordsStandBetweenBlanksTabsAndTildes) {
  EXPECT_THAT(words("a b\n\tc~~d {\n"), ElementsAre("1:1 a", "1:3 b", "2:2 c", "2:5 d", "2:7 {"));
}

TEST(CheckLinesTest, ACommentEndsALineInQuotesToo) {
  EXPECT_THAT(words("a \"b # c\"\n"), ElementsAre("1:1 a", "1:3 \"b"));
}

TEST(CheckLinesTest, TheLastLineMayHaveNoEnd) { EXPECT_THAT(words("\na"), ElementsAre("2:1 a")); }

TEST(CheckLinesTest, AMarkAndCarriageReturnsAreNoWords) {
  EXPECT_THAT(words("\xEF\xBB\xBF"
                    "a {\r\n}\r\n"),
              ElementsAre("1:4 a", "1:6 {", "2:1 }"));
}

TEST(CheckLinesTest, ALongLineIsCutBehind1023Characters) {
  EXPECT_THAT(told("#" + std::string(1022, 'x') + "\n"), IsEmpty());
  EXPECT_THAT(told("#" + std::string(1022, 'x') + "y\n"), ElementsAre("1:1024 long-line"));
  EXPECT_THAT(words(std::string(1023, 'x') + "y z"),
              ElementsAre("1:1 " + std::string(1023, 'x'), "1:1024 y", "1:1026 z"));
}

TEST(CheckLinesTest, ALineIsToldOnceHoweverLong) {
  EXPECT_THAT(told("#" + std::string(5000, 'x') + "\n"), ElementsAre("1:1024 long-line"));
}

TEST(CheckLinesTest, BlanksBehindTheCutAreNothing) {
  EXPECT_THAT(told("#" + std::string(1022, 'x') + std::string(50, ' ') + "\n"), IsEmpty());
}

TEST(CheckLinesTest, ABraceBehindAHashIsToldWhereItsLineHasNone) {
  EXPECT_THAT(told("health # {\n}\n"), ElementsAre("1:1 brackets", "1:10 brace-in-comment-cut"));
  EXPECT_THAT(told("# health {\n"), IsEmpty());
  EXPECT_THAT(told("health { # {\n}\n"), IsEmpty());
}

TEST(CheckLinesTest, ABraceInTheCommentOfALineThatOpensNoBlockIsNothing) {
  EXPECT_THAT(told("health {\ninterface a {\nnexthop 192.0.2.1\ncheck_all # { see ticket 12 }\n"
                   "failure-ct 2 # {2..3}\ntest 1 {\ntype ping # {\ntarget 198.51.100.7 # {\n}\n}\n"
                   "}\nrule 1_ipv4 {\ninterface a {\nweight 1\n}\ntarget {\n"
                   "address 0.0.0.0/0\n}\n}\n"),
              IsEmpty());
  EXPECT_THAT(told("rule 1_ipv4 {\ntarget # {\naddress 0.0.0.0/0\n}\n}\n"),
              testing::Contains("2:10 brace-in-comment-cut"));
}

TEST(CheckLinesTest, CarriageReturnsAreToldAtTheFirst) {
  EXPECT_THAT(told("health {\n}\r\n\r\n"), ElementsAre("2:2 carriage-returns"));
  EXPECT_THAT(told("health {\n}\r"), ElementsAre("2:2 carriage-returns"));
  EXPECT_THAT(told("health {\n# one\r\n}\n"), ElementsAre("2:6 carriage-returns"));
}

TEST(CheckLinesTest, ACarriageReturnAloneIsNoEndOfALine) {
  EXPECT_THAT(told("# one\rhealth {\r}\r"), testing::Contains("1:6 carriage-returns"));
  EXPECT_THAT(told("health {\n}\n# two\r# three\n"), ElementsAre("3:6 carriage-returns"));
  EXPECT_THAT(told("health {\n}\n# two\r \n"), IsEmpty()) << "nothing is hidden by it";
  EXPECT_THAT(told("health {\n interface wan1 {\n  nexthop 192.0.2.1\rorigin eth0\n }\n}\n"),
              testing::Contains("3:20 carriage-returns"));
}

}  // namespace lbctl
