// The keywords of the section "health".
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "support/config_fixture.h"
#include "support/recorded_log.h"

using testing::ElementsAre;
using testing::IsEmpty;
using testing::Key;
using testing::Pair;

namespace {

class HealthSectionTest : public ConfigTest {
 protected:
  // Reads the tests of eth0 in both forms of a block, each into a fresh model.
  bool read_test(const std::string& type, const std::string& lines, bool inner_block) {
    config_.interfaces.clear();
    return read_interface(inner_block ? "test 1 {\n type " + type + " {\n" + lines + "\n }\n }"
                                      : "test 1 {\n type " + type + "\n" + lines + "\n }");
  }
};

}  // namespace

TEST_F(HealthSectionTest, InterfacesStartWithTheirDefaults) {
  ASSERT_TRUE(read_interface(""));
  EXPECT_EQ(eth0().name, "eth0");
  EXPECT_EQ(eth0().origin, "eth0");
  EXPECT_EQ(eth0().success_ct, 3);
  EXPECT_EQ(eth0().failure_ct, 1);
  EXPECT_EQ(eth0().nexthop, "");
  EXPECT_EQ(eth0().source_address, "");
  EXPECT_EQ(eth0().vrf, "default");
  EXPECT_FALSE(eth0().ipv6);
  EXPECT_FALSE(eth0().check_all);
  EXPECT_THAT(namespaces_, IsEmpty());
}

TEST_F(HealthSectionTest, FamiliesHaveInterfacesOfTheirOwn) {
  ASSERT_TRUE(
      read("health {\n interface eth0 {\n nexthop a\n }\n interface6 eth0 {\n nexthop b\n }\n}\n"));
  EXPECT_EQ(eth0().nexthop, "a");
  EXPECT_EQ(config_.interfaces6.at("eth0").nexthop, "b");
  EXPECT_TRUE(config_.interfaces6.at("eth0").ipv6);
}

TEST_F(HealthSectionTest, InterfaceWithoutANameIsNone) {
  ASSERT_TRUE(read("health {\n interface {\n nexthop a\n }\n}\n"));
  EXPECT_TRUE(config_.interfaces.empty());
}

TEST_F(HealthSectionTest, InterfaceWithoutANameKeepsTheOneBefore) {
  ASSERT_TRUE(read("health {\n interface eth0 {\n }\n interface {\n nexthop a\n }\n}\n"));
  EXPECT_EQ(eth0().nexthop, "a");
}

TEST_F(HealthSectionTest, SecondBlockOfAnInterfaceContinuesTheFirst) {
  ASSERT_TRUE(
      read("health {\n interface eth0 {\n nexthop a\n check_all\n }\n interface eth1 {\n }\n"
           " interface eth0 {\n origin o\n }\n}\n"));
  EXPECT_EQ(eth0().nexthop, "a");
  EXPECT_EQ(eth0().origin, "o");
  EXPECT_TRUE(eth0().check_all);
}

TEST_F(HealthSectionTest, TakesTheKeywordsOfAnInterface) {
  for (const bool ipv6 : {false, true}) {
    const std::string lines =
        "success-ct 5\nfailure-ct 4\nnexthop dhcp\nsource_address 192.0.2.9\ncheck_all\n"
        "namespace red\norigin wan0\n";
    ASSERT_TRUE(ipv6 ? read_interface6(lines) : read_interface(lines));
    const LBInterface& interface = ipv6 ? eth1() : eth0();
    EXPECT_EQ(interface.success_ct, 5);
    EXPECT_EQ(interface.failure_ct, 4);
    EXPECT_EQ(interface.nexthop, "dhcp");
    EXPECT_TRUE(interface.discovers_nexthop());
    EXPECT_EQ(interface.source_address, "192.0.2.9");
    EXPECT_TRUE(interface.check_all);
    EXPECT_EQ(interface.vrf, "red");
    EXPECT_EQ(interface.origin, "wan0");
    EXPECT_EQ(interface.name, ipv6 ? "eth1" : "eth0");
    EXPECT_EQ(interface.ipv6, ipv6);
  }
  EXPECT_THAT(namespaces_, ElementsAre("red"));
}

TEST_F(HealthSectionTest, EveryNamespaceIsNoted) {
  ASSERT_TRUE(read_interface("namespace red\nnamespace blue\nnamespace"));
  EXPECT_EQ(eth0().vrf, "");
  EXPECT_THAT(namespaces_, ElementsAre("", "blue", "red"));
}

TEST_F(HealthSectionTest, UnknownKeywordsAreIgnored) {
  ASSERT_TRUE(read_interface("success_ct 9\nNexthop a\nweight 0\n"));
  EXPECT_EQ(eth0().success_ct, 3);
  EXPECT_EQ(eth0().nexthop, "");
  EXPECT_THAT(log_records(), IsEmpty());
}

TEST_F(HealthSectionTest, LinesOfOtherDepthsAreIgnored) {
  ASSERT_TRUE(
      read("health {\n nexthop a\n interface eth0 {\n }\n nexthop b\n"
           " x {\n y {\n z {\n q {\n nexthop c\n type ping\n }\n nexthop c\n }\n }\n }\n}\n"));
  EXPECT_EQ(eth0().nexthop, "");
  EXPECT_THAT(eth0().tests, ElementsAre(Key(1)));  // the default one
}

TEST_F(HealthSectionTest, LinesBeforeAnyInterfaceAreIgnored) {
  ASSERT_TRUE(
      read("health {\n x {\n nexthop a\n success-ct 2\n check_all\n namespace red\n test 1 {\n"
           " type ping\n target t\n resp-time 5\n period 5\n }\n }\n}\n"));
  EXPECT_TRUE(config_.interfaces.empty());
  EXPECT_TRUE(config_.interfaces6.empty());
  EXPECT_THAT(namespaces_, IsEmpty());
}

TEST_F(HealthSectionTest, IllegalThresholdsAreLoggedAndLeftAlone) {
  ASSERT_TRUE(
      read_interface("success-ct 7\nfailure-ct 6\nsuccess-ct 0\nsuccess-ct abc\nsuccess-ct -1\n"
                     "success-ct 2147483648\nsuccess-ct\nfailure-ct 0\nfailure-ct x\n"));
  EXPECT_EQ(eth0().success_ct, 7);
  EXPECT_EQ(eth0().failure_ct, 6);
  const std::string success = "wan_lb: illegal success-ct specified in configuration file: ";
  const std::string failure = "wan_lb: illegal failure-ct specified in configuration file: ";
  EXPECT_THAT(log_records(), ElementsAre(LoggedError(success + "0"), LoggedError(success + "abc"),
                                         LoggedError(success + "-1"),
                                         LoggedError(success + "2147483648"), LoggedError(success),
                                         LoggedError(failure + "0"), LoggedError(failure + "x")));
}

TEST_F(HealthSectionTest, IllegalThresholdsAreSilentWithoutTheErrorFlag) {
  set_log_flag(1, false);
  ASSERT_TRUE(read_interface("success-ct 0\nfailure-ct 0\n"));
  EXPECT_THAT(log_records(), IsEmpty());
}

TEST_F(HealthSectionTest, ThresholdsStopAtTheFirstNonDigit) {
  ASSERT_TRUE(read_interface("success-ct 12abc\nfailure-ct +2147483647\n"));
  EXPECT_EQ(eth0().success_ct, 12);
  EXPECT_EQ(eth0().failure_ct, 2147483647);
}

TEST_F(HealthSectionTest, TakesBothFormsOfATestBlock) {
  for (const bool inner_block : {false, true}) {
    ASSERT_TRUE(read_test("ping_ext", "target 192.0.2.7\nperiod 10\nresp-time 9", inner_block));
    ASSERT_THAT(eth0().tests, ElementsAre(Key(1))) << inner_block;
    EXPECT_EQ(test(eth0(), 1).type, "ping_ext");
    EXPECT_EQ(test(eth0(), 1).target, "192.0.2.7");
    EXPECT_THAT(test(eth0(), 1).numbers,
                ElementsAre(Pair(TestKeyword::kResponseTime, 9u), Pair(TestKeyword::kPeriod, 10u)));
    EXPECT_THAT(eth0().snapshot().target_results, ElementsAre(Pair("192.0.2.7", -1)));
  }
}

TEST_F(HealthSectionTest, BothFormsMayFollowEachOther) {
  ASSERT_TRUE(
      read_interface("test 1 {\n type ping {\n target a\n }\n }\n"
                     "test 2 {\n type ping_ext\n target b\n }\n"
                     "test 3 {\n type ping {\n target c\n }\n }"));
  ASSERT_THAT(eth0().tests, ElementsAre(Key(1), Key(2), Key(3)));
  EXPECT_EQ(test(eth0(), 1).target, "a");
  EXPECT_EQ(test(eth0(), 2).target, "b");
  EXPECT_EQ(test(eth0(), 2).type, "ping_ext");
  EXPECT_EQ(test(eth0(), 3).target, "c");
}

TEST_F(HealthSectionTest, AnyWordOpensATestBlock) {
  ASSERT_TRUE(
      read_interface("check 4 {\n type ping\n }\ntarget 5 {\n type ping\n }\n"
                     "type 6 {\n type ping\n target t\n }"));
  EXPECT_THAT(eth0().tests, ElementsAre(Key(4), Key(5), Key(6)));
  EXPECT_EQ(test(eth0(), 6).target, "t");
}

TEST_F(HealthSectionTest, OtherLinesOfATestBlockSetTheIndex) {
  ASSERT_TRUE(read_interface("test 1 {\n index 8\n type ping\n anything\n type ping_ext\n }"));
  ASSERT_THAT(eth0().tests, ElementsAre(Key(0), Key(8)));
  EXPECT_EQ(test(eth0(), 8).type, "ping");
  EXPECT_EQ(test(eth0(), 0).type, "ping_ext");
}

TEST_F(HealthSectionTest, BracketThatClosesATypeBlockSetsTheIndexToZero) {
  ASSERT_TRUE(read_interface("test 1 {\n type ping {\n }\n type ping_ext {\n }\n }"));
  EXPECT_THAT(eth0().tests, ElementsAre(Key(0), Key(1)));
}

TEST_F(HealthSectionTest, IndexIsADecimalNumber) {
  ASSERT_TRUE(
      read_interface("test {\n type ping\n }\ntest x {\n type ping\n }\n"
                     "test 12abc {\n type ping\n }\ntest -1 {\n type ping\n }"));
  EXPECT_THAT(eth0().tests, ElementsAre(Key(-1), Key(0), Key(12)));
}

TEST_F(HealthSectionTest, TakenIndexKeepsItsTest) {
  ASSERT_TRUE(
      read_interface("test 1 {\n type ping\n target a\n type ping_ext\n target b\n period 3\n }"));
  ASSERT_THAT(eth0().tests, ElementsAre(Key(1)));
  EXPECT_EQ(test(eth0(), 1).type, "ping");
  EXPECT_EQ(test(eth0(), 1).target, "b");
  EXPECT_THAT(test(eth0(), 1).numbers, ElementsAre(Pair(TestKeyword::kPeriod, 3u)));
  EXPECT_THAT(eth0().snapshot().target_results, ElementsAre(Pair("a", -1), Pair("b", -1)));
}

TEST_F(HealthSectionTest, UnknownTypeOfAnIpv4TestMovesTheCursor) {
  ASSERT_TRUE(
      read_interface("test 1 {\n type ping\n target a\n }\n"
                     "test 2 {\n type arp\n target b\n resp-time 1\n period 2\n }\n"
                     "test 1 {\n type arp\n target c\n }"));
  ASSERT_THAT(eth0().tests, ElementsAre(Key(1)));
  EXPECT_EQ(test(eth0(), 1).target, "c");
  EXPECT_THAT(test(eth0(), 1).numbers, IsEmpty());
  EXPECT_THAT(eth0().snapshot().target_results, ElementsAre(Pair("a", -1), Pair("c", -1)));
}

TEST_F(HealthSectionTest, UnknownTypeOfAnIpv6TestChangesNothing) {
  ASSERT_TRUE(
      read_interface6("test 1 {\n type ping\n target a\n }\n"
                      "test 2 {\n type ping_ext\n target b\n resp-time 7\n }"));
  ASSERT_THAT(eth1().tests, ElementsAre(Key(1)));
  EXPECT_EQ(test(eth1(), 1).type, "ping6");
  EXPECT_EQ(test(eth1(), 1).target, "b");
  EXPECT_THAT(test(eth1(), 1).numbers, ElementsAre(Pair(TestKeyword::kResponseTime, 7u)));
}

TEST_F(HealthSectionTest, EmptyTargetIsIgnored) {
  ASSERT_TRUE(read_interface("test 1 {\n type ping\n target a\n target\n target \"\"\n }"));
  EXPECT_EQ(test(eth0(), 1).target, "a");
  EXPECT_THAT(eth0().snapshot().target_results, ElementsAre(Pair("a", -1)));
}

TEST_F(HealthSectionTest, KeywordsBeforeAnyTestAreIgnored) {
  ASSERT_TRUE(
      read_interface("test 1 {\n target a\n resp-time 1\n period 1\n timeout 1\n count 1\n"
                     " loss 1\n rtt 1\n jitter 1\n }"));
  EXPECT_THAT(eth0().tests, ElementsAre(Key(1)));  // the default one
  EXPECT_EQ(test(eth0(), 1).target, "");
  EXPECT_THAT(eth0().snapshot().target_results, IsEmpty());
}

TEST_F(HealthSectionTest, TestStaysChosenInTheNextInterface) {
  // A "target" before the "type" still goes to the test that was chosen last.
  ASSERT_TRUE(
      read("health {\n interface eth0 {\n test 1 {\n type ping\n target a\n }\n }\n"
           " interface eth2 {\n test 1 {\n target b\n }\n }\n}\n"));
  EXPECT_EQ(test(eth0(), 1).target, "b");
  EXPECT_THAT(config_.interfaces.at("eth2").snapshot().target_results, ElementsAre(Pair("b", -1)));
}

TEST_F(HealthSectionTest, FamiliesHaveACurrentTestEach) {
  ASSERT_TRUE(
      read("health {\n interface eth0 {\n test 1 {\n type ping\n }\n }\n"
           " interface6 eth1 {\n test 1 {\n target early\n type ping\n target b\n resp-time 3\n"
           " }\n }\n}\n"));
  EXPECT_EQ(test(eth0(), 1).target, "");
  EXPECT_THAT(test(eth0(), 1).numbers, IsEmpty());
  EXPECT_EQ(test(eth1(), 1).target, "b");
  EXPECT_THAT(test(eth1(), 1).numbers, ElementsAre(Pair(TestKeyword::kResponseTime, 3u)));
  EXPECT_THAT(eth1().snapshot().target_results, ElementsAre(Pair("b", -1)));
}

TEST_F(HealthSectionTest, BurstKeywordsAddressTheIpv4TestInIpv6BlocksToo) {
  for (const bool inner_block : {false, true}) {
    config_.interfaces.clear();
    config_.interfaces6.clear();
    const std::string lines = "period 1\n timeout 2\n count 3\n loss 4\n rtt 5\n jitter 6\n";
    ASSERT_TRUE(
        read("health {\n interface eth0 {\n test 1 {\n type ping_ext\n }\n }\n"
             " interface6 eth1 {\n test 1 {\n type ping" +
             std::string(inner_block ? " {\n" + lines + "}\n" : "\n" + lines) + "}\n }\n}\n"));
    EXPECT_THAT(test(eth0(), 1).numbers,
                ElementsAre(Pair(TestKeyword::kPeriod, 1u), Pair(TestKeyword::kTimeout, 2u),
                            Pair(TestKeyword::kCount, 3u), Pair(TestKeyword::kLoss, 4u),
                            Pair(TestKeyword::kRtt, 5u), Pair(TestKeyword::kJitter, 6u)));
    EXPECT_THAT(test(eth1(), 1).numbers, IsEmpty());
  }
}

TEST_F(HealthSectionTest, NumbersOfTestsAreNotChecked) {
  ASSERT_TRUE(
      read_interface("test 1 {\n type ping_ext\n period abc\n count -1\n loss 4294967301\n"
                     " resp-time 0\n }"));
  EXPECT_THAT(test(eth0(), 1).numbers,
              ElementsAre(Pair(TestKeyword::kResponseTime, 0u), Pair(TestKeyword::kPeriod, 0u),
                          Pair(TestKeyword::kCount, 4294967295u), Pair(TestKeyword::kLoss, 5u)));
  EXPECT_THAT(log_records(), IsEmpty());
}
