// The sections "rule".
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "support/config_fixture.h"
#include "support/recorded_log.h"

using testing::ElementsAre;
using testing::IsEmpty;
using testing::Key;

namespace {

class RuleSectionTest : public ConfigTest {};

}  // namespace

TEST_F(RuleSectionTest, RulesStartWithTheirDefaults) {
  ASSERT_TRUE(read_rule(""));
  EXPECT_EQ(rule().failover, 0);
  EXPECT_EQ(rule().vrf, "default");
  EXPECT_TRUE(rule().targets.empty());
  EXPECT_TRUE(rule().members.empty());
  EXPECT_THAT(namespaces_, IsEmpty());
}

TEST_F(RuleSectionTest, NameIsTheTextAndTellsTheFamily) {
  ASSERT_TRUE(
      read("rule 1 {\n}\nrule 01 {\n}\nrule 10 {\n}\nrule 2 {\n}\nrule 1_ipv4 {\n}\n"
           "rule 1ipv4 {\n}\nrule \"1 ipv4\" {\n}\n"));
  EXPECT_THAT(config_.rules, ElementsAre(Key("01"), Key("1"), Key("1 ipv4"), Key("10"),
                                         Key("1_ipv4"), Key("1ipv4"), Key("2")));
  EXPECT_TRUE(is_ipv4_rule("1_ipv4"));
  EXPECT_TRUE(is_ipv4_rule("1ipv4"));
  EXPECT_TRUE(is_ipv4_rule("1 ipv4"));
  EXPECT_FALSE(is_ipv4_rule("1"));
  EXPECT_FALSE(is_ipv4_rule("1_ipv6"));
}

TEST_F(RuleSectionTest, SecondBlockOfARuleContinuesTheFirst) {
  ASSERT_TRUE(read("rule 1_ipv4 {\n failover\n}\nrule 2 {\n}\nrule 1_ipv4 {\n namespace red\n}\n"));
  EXPECT_EQ(rule().failover, 1);
  EXPECT_EQ(rule().vrf, "red");
}

TEST_F(RuleSectionTest, IllegalNumbersAreLogged) {
  ASSERT_TRUE(
      read("rule 0 {\n}\nrule abc {\n}\nrule -1 {\n}\nrule {\n}\nrule 2147483648 {\n}\n"
           "rule 0_ipv4 {\n}\nrule 2147483647 {\n}\n"));
  EXPECT_THAT(config_.rules, ElementsAre(Key("2147483647")));
  EXPECT_THAT(log_records(), ElementsAre(LoggedWarning("Illegal rule number: 0"),
                                         LoggedWarning("Illegal rule number: abc"),
                                         LoggedWarning("Illegal rule number: -1"),
                                         LoggedWarning("Illegal rule number: "),
                                         LoggedWarning("Illegal rule number: 2147483648"),
                                         LoggedWarning("Illegal rule number: 0_ipv4")));
}

TEST_F(RuleSectionTest, LowBitsOfALargeNumberCount) {
  ASSERT_TRUE(read("rule 4294967297_ipv4 {\n}\nrule 4294967296 {\n}\n"));
  EXPECT_THAT(config_.rules, ElementsAre(Key("4294967297_ipv4")));
  EXPECT_THAT(log_records(), ElementsAre(LoggedWarning("Illegal rule number: 4294967296")));
}

TEST_F(RuleSectionTest, IllegalNumbersAreSilentWithoutTheWarningFlag) {
  set_log_flag(2, false);
  ASSERT_TRUE(read("rule 0 {\n}\n"));
  EXPECT_THAT(log_records(), IsEmpty());
}

TEST_F(RuleSectionTest, LinesAfterAnIllegalRuleGoToTheOneBefore) {
  ASSERT_TRUE(read("rule 1_ipv4 {\n}\nrule 0 {\n failover\n}\n"));
  EXPECT_EQ(rule().failover, 1);
}

TEST_F(RuleSectionTest, LinesBeforeAnyRuleAreIgnored) {
  set_log_flag(2, false);
  ASSERT_TRUE(
      read("rule 0 {\n failover\n namespace red\n interface eth0 {\n weight 2\n }\n"
           " target {\n address a\n metric 1\n }\n}\n"));
  EXPECT_TRUE(config_.rules.empty());
  EXPECT_THAT(namespaces_, IsEmpty());
}

TEST_F(RuleSectionTest, RuleOnOneLineWithoutABlock) {
  ASSERT_TRUE(read("rule 1_ipv4\n"));
  EXPECT_THAT(config_.rules, ElementsAre(Key("1_ipv4")));
}

TEST_F(RuleSectionTest, MembersHaveAFamilyAndAWeight) {
  ASSERT_TRUE(
      read_rule("interface eth0 {\n weight 2\n}\ninterface6 eth1 {\n weight 1\n}\n"
                "interface eth2 {\n}\n"));
  ASSERT_THAT(rule().members, ElementsAre(Key("eth0"), Key("eth1"), Key("eth2")));
  EXPECT_FALSE(rule().members.at("eth0").ipv6);
  EXPECT_EQ(rule().members.at("eth0").weight, 2);
  EXPECT_TRUE(rule().members.at("eth1").ipv6);
  EXPECT_EQ(rule().members.at("eth1").weight, 1);
  EXPECT_EQ(rule().members.at("eth2").weight, 0);
}

TEST_F(RuleSectionTest, MemberNamedTwiceKeepsItsFamily) {
  ASSERT_TRUE(read_rule("interface eth0 {\n weight 2\n}\ninterface6 eth0 {\n weight 3\n}\n"));
  EXPECT_FALSE(rule().members.at("eth0").ipv6);
  EXPECT_EQ(rule().members.at("eth0").weight, 3);
}

TEST_F(RuleSectionTest, MembersMayBeNamedInsideAMembersBlock) {
  ASSERT_TRUE(read_rule("interface eth0 {\n interface6 eth1\n weight 4\n}\n"));
  EXPECT_EQ(rule().members.at("eth0").weight, 0);
  EXPECT_TRUE(rule().members.at("eth1").ipv6);
  EXPECT_EQ(rule().members.at("eth1").weight, 4);
}

TEST_F(RuleSectionTest, IllegalWeightsAreLoggedAndLeftAlone) {
  ASSERT_TRUE(
      read_rule("interface eth0 {\n weight 2\n weight 0\n weight -3\n weight x\n weight\n"
                " weight 3000000000\n}\n"));
  EXPECT_EQ(rule().members.at("eth0").weight, 2);
  const std::string text = "wan_lb: illegal interface weight specified in configuration file: ";
  EXPECT_THAT(log_records(), ElementsAre(LoggedError(text + "0"), LoggedError(text + "-3"),
                                         LoggedError(text + "x"), LoggedError(text),
                                         LoggedError(text + "3000000000")));
}

TEST_F(RuleSectionTest, IllegalWeightsAreSilentWithoutTheErrorFlag) {
  set_log_flag(1, false);
  ASSERT_TRUE(read_rule("interface eth0 {\n weight 0\n}\n"));
  EXPECT_THAT(log_records(), IsEmpty());
}

TEST_F(RuleSectionTest, OtherKeywordsOfAMemberAreIgnored) {
  ASSERT_TRUE(read_rule("interface eth0 {\n colour 7\n}\n"));
  EXPECT_THAT(config_.rules, ElementsAre(Key("1_ipv4")));
}

TEST_F(RuleSectionTest, InterfaceWithoutABlockIsTakenForARuleNumber) {
  ASSERT_TRUE(read_rule("interface eth0\n"));
  EXPECT_TRUE(rule().members.empty());
  EXPECT_THAT(log_records(), ElementsAre(LoggedWarning("Illegal rule number: eth0")));
}

TEST_F(RuleSectionTest, FailoverMayBeABlock) {
  ASSERT_TRUE(read_rule("failover {\n anything\n}\n"));
  EXPECT_EQ(rule().failover, 1);
  EXPECT_THAT(log_records(), IsEmpty());
}

TEST_F(RuleSectionTest, NamespacesAreNoted) {
  ASSERT_TRUE(
      read("rule 1_ipv4 {\n namespace red\n}\nrule 2 {\n namespace blue\n namespace green\n}\n"));
  EXPECT_EQ(rule().vrf, "red");
  EXPECT_EQ(config_.rules.at("2").vrf, "green");
  EXPECT_THAT(namespaces_, ElementsAre("blue", "green", "red"));
}

TEST_F(RuleSectionTest, TargetsHaveAMetric) {
  ASSERT_TRUE(
      read_rule("target {\n address 203.0.113.0/24\n metric 10\n address 198.51.100.0/24\n}\n"
                "target {\n address 192.0.2.0/24\n metric abc\n}\n"));
  ASSERT_THAT(rule().targets,
              ElementsAre(Key("192.0.2.0/24"), Key("198.51.100.0/24"), Key("203.0.113.0/24")));
  EXPECT_EQ(rule().targets.at("203.0.113.0/24").metric, 10);
  EXPECT_EQ(rule().targets.at("198.51.100.0/24").metric, -1);
  EXPECT_EQ(rule().targets.at("192.0.2.0/24").metric, 0);
}

TEST_F(RuleSectionTest, MetricBeforeItsAddressGoesToTheTargetBefore) {
  ASSERT_TRUE(
      read_rule("target {\n metric 9\n address a\n}\ntarget {\n metric 5\n address b\n}\n"));
  EXPECT_EQ(rule().targets.at("a").metric, 5);
  EXPECT_EQ(rule().targets.at("b").metric, -1);
}

TEST_F(RuleSectionTest, MetricIsNotChecked) {
  ASSERT_TRUE(read_rule("target {\n address a\n metric -7\n}\n"));
  EXPECT_EQ(rule().targets.at("a").metric, -7);
  EXPECT_THAT(log_records(), IsEmpty());
}

TEST_F(RuleSectionTest, LargestMetricIsNone) {
  ASSERT_TRUE(read_rule("target {\n address a\n metric 7\n metric 4294967295\n}\n"));
  EXPECT_EQ(rule().targets.at("a").metric, LBTarget().metric);
}

TEST_F(RuleSectionTest, MetricWithoutANumberIsZero) {
  ASSERT_TRUE(read_rule("target {\n address a\n metric 7\n metric\n}\n"));
  EXPECT_EQ(rule().targets.at("a").metric, 0);
}

TEST_F(RuleSectionTest, AddressNamedTwiceKeepsItsMetric) {
  ASSERT_TRUE(read_rule("target {\n address a\n metric 4\n address b\n address a\n}\n"));
  EXPECT_EQ(rule().targets.at("a").metric, 4);
}

TEST_F(RuleSectionTest, StrayLineSelectsTheRuleOfItsValue) {
  ASSERT_TRUE(read_rule("other 7\nfailover\n"));
  EXPECT_EQ(rule().failover, 0);
  EXPECT_EQ(config_.rules.at("7").failover, 1);
}

TEST_F(RuleSectionTest, StrayLineOfAnUnknownBlockSelectsARuleToo) {
  ASSERT_TRUE(read_rule("block {\n word 8\n}\n"));
  EXPECT_THAT(config_.rules, ElementsAre(Key("1_ipv4"), Key("8")));
  EXPECT_THAT(log_records(), ElementsAre(LoggedWarning("Illegal rule number: ")));
}
