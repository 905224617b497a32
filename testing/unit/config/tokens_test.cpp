#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "config/tokens.h"

using testing::ElementsAre;
using testing::IsEmpty;

TEST(TokensTest, SeparatesAtTheDelimiter) {
  EXPECT_THAT(split_tokens("interface eth0 {\n", ' '), ElementsAre("interface", "eth0", "{"));
  EXPECT_THAT(split_tokens("a,b c", ','), ElementsAre("a", "b c"));
}

TEST(TokensTest, GivesNoEmptyTokens) {
  EXPECT_THAT(split_tokens("   a    b   \n", ' '), ElementsAre("a", "b"));
  EXPECT_THAT(split_tokens("", ' '), IsEmpty());
  EXPECT_THAT(split_tokens("\n", ' '), IsEmpty());
  EXPECT_THAT(split_tokens("  ~ ~", ' '), IsEmpty());
}

TEST(TokensTest, TakesATildeForASeparatorAlways) {
  EXPECT_THAT(split_tokens("a~b", ' '), ElementsAre("a", "b"));
  EXPECT_THAT(split_tokens("a~~b c", ';'), ElementsAre("a", "b c"));
}

TEST(TokensTest, TurnsATabIntoFourBlanks) {
  EXPECT_THAT(split_tokens("\ta\tb\t", ' '), ElementsAre("a", "b"));
  EXPECT_THAT(split_tokens("a\tb", ';'), ElementsAre("a    b"));
  EXPECT_THAT(split_tokens("a\tb", '\t'), ElementsAre("a    b"));
}

TEST(TokensTest, DropsTheFirstNewlineOnly) {
  EXPECT_THAT(split_tokens("a\nb\nc", ' '), ElementsAre("ab\nc"));
  EXPECT_THAT(split_tokens("\na\n", '\n'), ElementsAre("a"));
}

TEST(TokensAtTest, IsEmptyPastTheEnd) {
  const auto tokens = split_tokens("a b", ' ');
  EXPECT_EQ(token_at(tokens, 0), "a");
  EXPECT_EQ(token_at(tokens, 1), "b");
  EXPECT_EQ(token_at(tokens, 2), "");
  EXPECT_EQ(token_at({}, 0), "");
}

TEST(TokensNumberTest, ReadsDecimalDigits) {
  EXPECT_EQ(parse_unsigned("0"), 0u);
  EXPECT_EQ(parse_unsigned("240"), 240u);
  EXPECT_EQ(parse_unsigned("010"), 10u);
  EXPECT_EQ(parse_unsigned("0x10"), 0u);
  EXPECT_EQ(parse_unsigned("4294967295"), 4294967295u);
}

TEST(TokensNumberTest, AllowsBlanksAndASign) {
  EXPECT_EQ(parse_unsigned(" \t\n\v\f\r12"), 12u);
  EXPECT_EQ(parse_unsigned("+12"), 12u);
  EXPECT_EQ(parse_unsigned("-1"), 4294967295u);
  EXPECT_EQ(parse_unsigned("-5"), 4294967291u);
  EXPECT_EQ(parse_unsigned("--1"), 0u);
  EXPECT_EQ(parse_unsigned("- 1"), 0u);
}

TEST(TokensNumberTest, StopsAtTheFirstOtherCharacter) {
  EXPECT_EQ(parse_unsigned("1_ipv4"), 1u);
  EXPECT_EQ(parse_unsigned("12.9"), 12u);
  EXPECT_EQ(parse_unsigned(std::string_view("1\0002", 3)), 1u);
}

TEST(TokensNumberTest, GivesZeroWithoutDigits) {
  EXPECT_EQ(parse_unsigned(""), 0u);
  EXPECT_EQ(parse_unsigned("   "), 0u);
  EXPECT_EQ(parse_unsigned("-"), 0u);
  EXPECT_EQ(parse_unsigned("abc"), 0u);
}

// Of a host whose long has 64 bits.
TEST(TokensNumberTest, KeepsTheLowBitsOfALargeNumber) {
  static_assert(sizeof(long) == 8);
  EXPECT_EQ(parse_unsigned("4294967296"), 0u);
  EXPECT_EQ(parse_unsigned("4294967297"), 1u);
  EXPECT_EQ(parse_unsigned("-4294967296"), 0u);
  EXPECT_EQ(parse_unsigned("-4294967295"), 1u);
  EXPECT_EQ(parse_unsigned("99999999999"), 1215752191u);
  EXPECT_EQ(parse_unsigned("18446744069414584327"), 7u);  // 2^64 - 2^32 + 7
}

TEST(TokensNumberTest, GivesTheLargestNumberForOneBeyondALong) {
  EXPECT_EQ(parse_unsigned("18446744073709551615"), 4294967295u);  // 2^64 - 1: fits just so
  EXPECT_EQ(parse_unsigned("18446744073709551616"), 4294967295u);
  EXPECT_EQ(parse_unsigned("18446744073709551617"), 4294967295u);
  EXPECT_EQ(parse_unsigned("-18446744073709551617"), 4294967295u);
  EXPECT_EQ(parse_unsigned(std::string(1000, '9')), 4294967295u);
}
