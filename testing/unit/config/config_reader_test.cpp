// Lines, brackets and sections of the configuration file.
#include "config/config_reader.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "support/config_fixture.h"
#include "support/recorded_log.h"
#include "support/wrapped_calls.h"

using testing::ElementsAre;
using testing::IsEmpty;
using testing::Key;
using testing::UnorderedElementsAre;

namespace {

const auto kBrackets = LoggedWarning("Malformed configuration file: brackets");
const auto kMismatched = LoggedWarning("Configuration error due to mismatched brackets");

class ConfigReaderTest : public ConfigTest {};

std::string repeated(const std::string& text, int times) {
  std::string result;
  for (int i = 0; i < times; ++i) result += text;
  return result;
}

}  // namespace

TEST_F(ConfigReaderTest, ReadsTheWholeExample) {
  ASSERT_TRUE(read(R"(health {
    interface eth0 {
        success-ct 3
        failure-ct 2
        nexthop 192.0.2.1
        namespace default
        test 1 {
            type ping_ext
            target 198.51.100.7
            period 10
            timeout 1000
            count 5
            loss 1
            rtt 200
            jitter 50
            resp-time 5000
        }
    }
    interface6 eth1 {
        test 1 {
            type ping
            target 2001:db8::1
        }
    }
}
rule 1_ipv4 {
    interface eth0 {
        weight 2
    }
    failover
    target {
        address 203.0.113.0/24
        metric 10
    }
}
)"));
  EXPECT_THAT(log_records(), IsEmpty());
  EXPECT_EQ(eth0().success_ct, 3);
  EXPECT_EQ(eth0().failure_ct, 2);
  EXPECT_EQ(eth0().nexthop, "192.0.2.1");
  EXPECT_EQ(eth0().vrf, "default");
  EXPECT_THAT(namespaces_, ElementsAre("default"));
  ASSERT_THAT(eth0().tests, ElementsAre(Key(1)));
  EXPECT_EQ(test(eth0(), 1).type, "ping_ext");
  EXPECT_EQ(test(eth0(), 1).target, "198.51.100.7");
  EXPECT_THAT(test(eth0(), 1).numbers,
              UnorderedElementsAre(
                  std::pair(TestKeyword::kPeriod, 10u), std::pair(TestKeyword::kTimeout, 1000u),
                  std::pair(TestKeyword::kCount, 5u), std::pair(TestKeyword::kLoss, 1u),
                  std::pair(TestKeyword::kRtt, 200u), std::pair(TestKeyword::kJitter, 50u),
                  std::pair(TestKeyword::kResponseTime, 5000u)));
  ASSERT_THAT(eth1().tests, ElementsAre(Key(1)));
  EXPECT_EQ(test(eth1(), 1).target, "2001:db8::1");

  ASSERT_THAT(config_.rules, ElementsAre(Key("1_ipv4")));
  EXPECT_EQ(rule().failover, 1);
  EXPECT_EQ(rule().members.at("eth0").weight, 2);
  EXPECT_FALSE(rule().members.at("eth0").ipv6);
  EXPECT_EQ(rule().targets.at("203.0.113.0/24").metric, 10);
}

TEST_F(ConfigReaderTest, MissingFileIsLoggedAndTheModelUntouched) {
  ConfigReader reader(config_, namespaces_, factory_);
  EXPECT_FALSE(reader.read_config("/nonexistent/lb.conf"));
  EXPECT_THAT(
      log_records(),
      ElementsAre(LoggedError("wan_lb: configuration file not found: /nonexistent/lb.conf")));
  EXPECT_TRUE(config_.interfaces.empty());
  EXPECT_TRUE(config_.rules.empty());
}

TEST_F(ConfigReaderTest, MissingFileIsSilentWithoutTheErrorFlag) {
  set_log_flag(1, false);
  EXPECT_FALSE(ConfigReader(config_, namespaces_, factory_).read_config("/nonexistent"));
  EXPECT_THAT(log_records(), IsEmpty());
}

TEST_F(ConfigReaderTest, EmptyFileIsAnEmptyModel) {
  EXPECT_TRUE(read(""));
  EXPECT_TRUE(config_.interfaces.empty());
  EXPECT_TRUE(config_.interfaces6.empty());
  EXPECT_TRUE(config_.rules.empty());
  EXPECT_THAT(log_records(), IsEmpty());
}

TEST_F(ConfigReaderTest, ClosingBracketOnTheFirstLineFails) {
  EXPECT_FALSE(read("}\nrule 1_ipv4 {\n}\n"));
  EXPECT_THAT(log_records(), ElementsAre(kBrackets));
  EXPECT_TRUE(config_.rules.empty());  // the rest is not read
}

TEST_F(ConfigReaderTest, BracketWarningsObeyTheirFlag) {
  set_log_flag(2, false);
  EXPECT_FALSE(read("}\n"));
  EXPECT_FALSE(read("health {\n"));
  EXPECT_THAT(log_records(), IsEmpty());
}

TEST_F(ConfigReaderTest, FileEndingInsideABlockFails) {
  EXPECT_FALSE(read("health {\n interface eth0 {\n nexthop 192.0.2.1\n"));
  EXPECT_THAT(log_records(), ElementsAre(kMismatched));
  EXPECT_EQ(eth0().nexthop, "192.0.2.1");  // kept
  EXPECT_TRUE(eth0().tests.empty());       // no default tests
}

TEST_F(ConfigReaderTest, BracketFailureKeepsWhatWasReadWithoutDefaultTests) {
  EXPECT_FALSE(read("health {\n interface eth0 {\n }\n}\n}\n"));
  EXPECT_THAT(log_records(), ElementsAre(kBrackets));
  EXPECT_TRUE(eth0().tests.empty());
}

TEST_F(ConfigReaderTest, ThirtyOneOpenBlocksAreTheMost) {
  EXPECT_TRUE(read(repeated("{\n", 31) + repeated("}\n", 31)));
  EXPECT_THAT(log_records(), IsEmpty());
  EXPECT_FALSE(read(repeated("{\n", 32) + repeated("}\n", 32)));
  EXPECT_THAT(log_records(), ElementsAre(kBrackets));
}

TEST_F(ConfigReaderTest, DepthMayLeaveTheRangeWithinALine) {
  EXPECT_TRUE(read(repeated("{ ", 40) + "word " + repeated("} ", 40) + "\n"));
  EXPECT_TRUE(read(repeated("} ", 40) + "word " + repeated("{ ", 40) + "\n"));
  EXPECT_THAT(log_records(), IsEmpty());
  EXPECT_FALSE(read(repeated("{ ", 500) + "\n"));
  EXPECT_FALSE(read(repeated("} ", 500) + "\n"));
  EXPECT_THAT(log_records(), ElementsAre(kBrackets, kBrackets));
}

TEST_F(ConfigReaderTest, LineIsDispatchedBeforeItsBracketsAreChecked) {
  // The 32nd block's line selects a rule before the reader gives up.
  EXPECT_FALSE(read("rule 1_ipv4 {\n" + repeated("{\n", 30) + "rule 2_ipv4 {\n"));
  EXPECT_THAT(config_.rules, ElementsAre(Key("1_ipv4"), Key("2_ipv4")));
  EXPECT_THAT(log_records(), ElementsAre(kBrackets));
}

TEST_F(ConfigReaderTest, CommentsEndALine) {
  EXPECT_TRUE(read("# rule 9 {\nrule 1_ipv4 { # first {\n#\n failover # }\n}#\n"));
  EXPECT_THAT(config_.rules, ElementsAre(Key("1_ipv4")));
  EXPECT_EQ(rule().failover, 1);
}

TEST_F(ConfigReaderTest, QuotesHoldBlanksTogether) {
  EXPECT_TRUE(read_interface("nexthop \"two words\" # comment"));
  EXPECT_EQ(eth0().nexthop, "two words");
}

TEST_F(ConfigReaderTest, QuotedTextIsTakenAsWritten) {
  EXPECT_TRUE(read_interface("nexthop \" a\t~b \"\n"));
  EXPECT_EQ(eth0().nexthop, " a\t~b ");
  EXPECT_TRUE(read_interface("nexthop \"a\" and \"b\"\n"));
  EXPECT_EQ(eth0().nexthop, "a\" and \"b");
  EXPECT_TRUE(read_interface("nexthop x \"y z\"\n"));  // the value, wherever the quotes stand
  EXPECT_EQ(eth0().nexthop, "y z");
}

TEST_F(ConfigReaderTest, CommentIsCutBeforeQuotes) {
  EXPECT_TRUE(read_interface("nexthop \"a # b\""));
  EXPECT_EQ(eth0().nexthop, "a ");
}

TEST_F(ConfigReaderTest, SingleQuoteTakesTheRestOfTheLine) {
  EXPECT_TRUE(read_interface("nexthop \"two words\nsource_address a\" b c"));
  EXPECT_EQ(eth0().nexthop, "two words");
  EXPECT_EQ(eth0().source_address, " b c");
}

TEST_F(ConfigReaderTest, EmptyQuotesGiveAnEmptyValue) {
  EXPECT_TRUE(read_interface("nexthop 192.0.2.1\nnexthop \"\" more\n"));
  EXPECT_EQ(eth0().nexthop, "");
}

TEST_F(ConfigReaderTest, TildeSeparatesLikeABlank) {
  EXPECT_TRUE(read("health~{\ninterface~eth0~{\nnexthop~a~b\n}\n}\n"));
  EXPECT_EQ(eth0().nexthop, "a");
}

TEST_F(ConfigReaderTest, FurtherTokensAreIgnored) {
  EXPECT_TRUE(read("health now {\ninterface eth0 extra words {\nnexthop a b c\n}\n}\n"));
  EXPECT_EQ(eth0().nexthop, "a");
}

TEST_F(ConfigReaderTest, BracketGluedToAWordIsNoBracket) {
  EXPECT_TRUE(read("health{\n"));
  EXPECT_TRUE(config_.interfaces.empty());
}

TEST_F(ConfigReaderTest, LastLineNeedsNoNewline) {
  EXPECT_TRUE(read("rule 1_ipv4 {\nfailover\n}"));
  EXPECT_EQ(rule().failover, 1);
}

TEST_F(ConfigReaderTest, BlockOpenerMustStandWithItsBracket) {
  EXPECT_TRUE(read("health {\n interface eth0\n {\n nexthop a\n }\n}\n"));
  EXPECT_TRUE(config_.interfaces.empty());
}

TEST_F(ConfigReaderTest, BlockOnOneLineIsDispatchedOnceWithTheFinalDepth) {
  EXPECT_TRUE(read("rule 1_ipv4 { failover }\n"));
  ASSERT_THAT(config_.rules, ElementsAre(Key("1_ipv4")));
  EXPECT_EQ(rule().failover, 0);
  EXPECT_TRUE(read("health { interface eth0 { nexthop a } }\n"));
  EXPECT_TRUE(config_.interfaces.empty());
}

TEST_F(ConfigReaderTest, OtherSectionsAreIgnored) {
  EXPECT_TRUE(read("other {\n interface eth0 {\n weight 0\n }\n}\nHealth {\n}\nrules 0 {\n}\n"));
  EXPECT_TRUE(config_.interfaces.empty());
  EXPECT_TRUE(config_.rules.empty());
  EXPECT_THAT(log_records(), IsEmpty());
}

TEST_F(ConfigReaderTest, LongLineIsProcessedAsSeveralLines) {
  // 1023 characters, then the rest as a line of its own.
  const std::string blanks(1023 - std::string("nexthop a").size(), ' ');
  EXPECT_TRUE(read_interface("nexthop a" + blanks + "origin b\n"));
  EXPECT_EQ(eth0().nexthop, "a");
  EXPECT_EQ(eth0().origin, "b");
}

TEST_F(ConfigReaderTest, LineOf1023CharactersIsOneLine) {
  const std::string value(1023 - std::string("nexthop ").size(), 'x');
  EXPECT_TRUE(read_interface("nexthop " + value + "\norigin b\n"));
  EXPECT_EQ(eth0().nexthop, value);
  EXPECT_EQ(eth0().origin, "b");
}

TEST_F(ConfigReaderTest, CommentEndsWithItsPartOfALongLine) {
  EXPECT_TRUE(read_interface("#" + std::string(1022, 'x') + "nexthop a\n"));
  EXPECT_EQ(eth0().nexthop, "a");
}

TEST_F(ConfigReaderTest, ZeroByteEndsItsLineOnly) {
  using namespace std::string_literals;
  EXPECT_TRUE(read_interface("nexthop a\0bc\norigin x\n\0\nsource_address y\n"s));
  EXPECT_EQ(eth0().nexthop, "a");
  EXPECT_EQ(eth0().origin, "x");
  EXPECT_EQ(eth0().source_address, "y");
}

TEST_F(ConfigReaderTest, AnyBytesAreSurvived) {
  unsigned seed = 1;
  for (int round = 0; round < 200; ++round) {
    std::string text;
    for (int i = 0; i < 400; ++i) {
      seed = seed * 1103515245u + 12345u;
      const char* const words[] = {"{ ", "} ", "\n", "health ", "rule ", "1 ", "interface ",
                                   "\"", "#",  "~",  "type ",   "ping ", "x ", "\t"};
      text += words[(seed >> 16) % std::size(words)];
    }
    read(text);
  }
}

TEST_F(ConfigReaderTest, UnreadableFileReadsAsEmpty) {
  // A directory can be opened but not read.
  ConfigReader reader(config_, namespaces_, factory_);
  EXPECT_TRUE(reader.read_config(directory_.path()));
}

TEST_F(ConfigReaderTest, FileIsClosedOnEveryWayOut) {
  for (const char* text : {"", "}\n", "health {\n"}) {
    const int before = call_count("fopen");
    const int closed_before = call_count("fclose");
    read(text);
    EXPECT_EQ(call_count("fopen") - before, 1);
    EXPECT_EQ(call_count("fclose") - closed_before, 1) << text;
  }
}

TEST_F(ConfigReaderTest, GivesDefaultTestsToInterfacesWithoutAny) {
  ASSERT_TRUE(
      read("health {\n interface eth0 {\n }\n interface6 eth1 {\n }\n"
           " interface eth2 {\n test 7 {\n type ping_ext\n }\n }\n}\n"));
  EXPECT_THAT(eth0().tests, ElementsAre(Key(1)));
  EXPECT_EQ(test(eth0(), 1).type, "ping");
  EXPECT_EQ(test(eth0(), 1).target, "");
  EXPECT_THAT(eth1().tests, ElementsAre(Key(1)));
  EXPECT_EQ(test(eth1(), 1).type, "ping6");
  EXPECT_THAT(config_.interfaces.at("eth2").tests, ElementsAre(Key(7)));
}
