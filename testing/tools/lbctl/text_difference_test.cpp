// The difference of two texts: as diff -u writes it, and always one that makes the new text of the
// old.
#include "lbctl/text_difference.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <random>
#include <sstream>
#include <string>
#include <vector>

namespace lbctl {
namespace {

std::string difference(const std::string& old_text, const std::string& new_text) {
  return unified_difference(old_text, new_text, "old", "new");
}

TEST(TextDifference, NothingForTheSameText) {
  EXPECT_EQ(difference("", ""), "");
  EXPECT_EQ(difference("a\nb\n", "a\nb\n"), "");
}

TEST(TextDifference, AllOfATextAgainstNone) {
  EXPECT_EQ(difference("", "a\nb\n"), "--- old\n+++ new\n@@ -0,0 +1,2 @@\n+a\n+b\n");
  EXPECT_EQ(difference("a\n", ""), "--- old\n+++ new\n@@ -1 +0,0 @@\n-a\n");
}

TEST(TextDifference, AChangeHasThreeLinesAround) {
  EXPECT_EQ(difference("1\n2\n3\n4\n5\n6\n7\n8\n9\n", "1\n2\n3\n4\nfive\n6\n7\n8\n9\n"),
            "--- old\n+++ new\n@@ -2,7 +2,7 @@\n 2\n 3\n 4\n-5\n+five\n 6\n 7\n 8\n");
}

// What GNU diff prints for them.
TEST(TextDifference, ChangesThatAreNearShareAHunk) {
  const std::string text = "1\n2\n3\n4\n5\n6\n7\n8\n";
  EXPECT_EQ(difference(text, "2\n3\n4\n5\n6\n7\n"),
            "--- old\n+++ new\n@@ -1,8 +1,6 @@\n-1\n 2\n 3\n 4\n 5\n 6\n 7\n-8\n");
  EXPECT_EQ(difference(text + "9\n", "2\n3\n4\n5\n6\n7\n8\n"),
            "--- old\n+++ new\n@@ -1,4 +1,3 @@\n-1\n 2\n 3\n 4\n@@ -6,4 +5,3 @@\n 6\n 7\n 8\n-9\n");
}

TEST(TextDifference, ALastLineWithoutNewlineIsMarked) {
  EXPECT_EQ(difference("a", "a\n"),
            "--- old\n+++ new\n@@ -1 +1 @@\n-a\n\\ No newline at end of file\n+a\n");
}

TEST(TextDifference, TooManyChangesReplaceAll) {
  std::string old_text = "same\n";
  std::string new_text = "same\n";
  for (int line = 0; line < 1500; ++line) {
    old_text += "a" + std::to_string(line) + "\n";
    new_text += "b" + std::to_string(line) + "\n";
  }
  const std::string text = difference(old_text, new_text);
  EXPECT_EQ(std::count(text.begin(), text.end(), '\n'), 3 + 1 + 3000);
  EXPECT_NE(text.find("@@ -1,1501 +1,1501 @@\n same\n-a0\n"), std::string::npos);
}

// Independent of how it was found: takes the hunks for what their lines and numbers say.
std::string patched(const std::string& old_text, const std::string& difference, int& edits) {
  std::istringstream old_lines(old_text);
  std::istringstream lines(difference);
  std::string result;
  std::string line;
  size_t at = 1;  // the next line of the old text
  const auto take_old = [&] {
    EXPECT_TRUE(std::getline(old_lines, line));
    ++at;
    return line;
  };
  std::string words;
  while (std::getline(lines, words)) {
    if (words.starts_with("---") || words.starts_with("+++")) continue;
    if (words.starts_with("@@")) {
      size_t start = std::stoul(words.substr(4));
      const std::string old_range = words.substr(4, words.find(' ', 4) - 4);
      if (old_range.ends_with(",0")) ++start;
      while (at < start) result += take_old() + "\n";
    } else if (words[0] == '+') {
      ++edits;
      result += words.substr(1) + "\n";
    } else {
      EXPECT_EQ(take_old(), words.substr(1));
      if (words[0] == ' ') result += words.substr(1) + "\n";
      if (words[0] == '-') ++edits;
    }
  }
  while (std::getline(old_lines, line)) result += line + "\n";
  return result;
}

// The length of the longest common subsequence tells the fewest edits.
int fewest_edits(const std::string& first, const std::string& second) {
  std::vector<std::vector<int>> common(first.size() + 1, std::vector<int>(second.size() + 1));
  for (size_t row = 0; row < first.size(); ++row) {
    for (size_t column = 0; column < second.size(); ++column) {
      common[row + 1][column + 1] =
          first[row] == second[column] ? common[row][column] + 1
                                       : std::max(common[row][column + 1], common[row + 1][column]);
    }
  }
  return static_cast<int>(first.size() + second.size()) - 2 * common[first.size()][second.size()];
}

TEST(TextDifference, MakesTheNewTextOfTheOldWithTheFewestEdits) {
  std::mt19937 random(20261122);
  const auto letters = [&random] {
    std::string text(random() % 25, ' ');
    for (char& letter : text) letter = static_cast<char>('a' + random() % 4);
    return text;
  };
  const auto lines_of = [](const std::string& text) {
    std::string lines;
    for (const char letter : text) lines += std::string(1, letter) + "\n";
    return lines;
  };
  for (int round = 0; round < 5000; ++round) {
    const std::string old_letters = letters();
    const std::string new_letters = letters();
    const std::string text = difference(lines_of(old_letters), lines_of(new_letters));
    int edits = 0;
    ASSERT_EQ(patched(lines_of(old_letters), text, edits), lines_of(new_letters)) << text;
    ASSERT_EQ(edits, fewest_edits(old_letters, new_letters)) << text;
  }
}

}  // namespace
}  // namespace lbctl
