// What is said of interfaces, rules and names beyond the one example of each code.
#include "lbctl/check_model.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "lbctl/check_fixture.h"

namespace lbctl {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

const std::string kBird2 = "options {\nrouting-daemon bird2\n}\n";

// Line 1 is the section's, 2 the interface's; its own lines begin with 4, those of the rule are
// last.
std::string with_interface(const std::string& lines, const std::string& nexthop = "192.0.2.1") {
  return "health {\ninterface a {\nnexthop " + nexthop + "\n" + lines +
         "}\n}\nrule 1_ipv4 {\ninterface a {\nweight 1\n}\ntarget {\naddress 0.0.0.0/0\n}\n}\n";
}

std::string with_interface6(const std::string& lines, const std::string& nexthop) {
  return "health {\ninterface6 a {\nnexthop " + nexthop + "\n" + lines +
         "}\n}\nrule 1_ipv6 {\ninterface6 a {\nweight 1\n}\ntarget {\naddress ::/0\n}\n}\n";
}

// A rule's lines begin with 8.
std::string with_rule(const std::string& lines, const std::string& name = "1_ipv4") {
  return "health {\ninterface a {\nnexthop dhcp\n}\ninterface6 a {\nnexthop dhcp\n}\n}\nrule " +
         name + " {\n" + lines + "}\n";
}

std::string with_test(const std::string& lines) {
  return with_interface("test 1 {\n" + lines + "}\n");
}

}  // namespace

TEST(CheckModelTest, WhatTheReadmeShowsIsClean) {
  EXPECT_THAT(told(with_interface("origin eth0\nsource_address auto\nhold-down 30\ncheck_all\n")),
              IsEmpty());
  EXPECT_THAT(told(with_test("type ping_ext {\ntarget 198.51.100.7\ntimeout 2000\ncount 5\n}\n")),
              IsEmpty());
}

TEST(CheckModelTest, NumbersAreHeldAgainstWhatTheReaderKeeps) {
  EXPECT_THAT(told(with_interface("success-ct 2147483648\n")), ElementsAre("4:12 out-of-range"));
  EXPECT_THAT(told(with_interface("success-ct +3\n")), IsEmpty());
  EXPECT_THAT(told(with_interface("success-ct 3 x\n")), ElementsAre("4:12 bad-number"));
  EXPECT_THAT(told(with_interface("success-ct\n")), ElementsAre("4:1 bad-number"));
  EXPECT_THAT(told(with_interface("hold-down -1\n")), ElementsAre("4:11 bad-option"));
  EXPECT_THAT(told(with_interface("hold-down +1\n")), ElementsAre("4:11 bad-option"));
  EXPECT_THAT(told(with_test("type ping\nresp-time -5\n")), ElementsAre("6:11 out-of-range"));
  EXPECT_THAT(told(with_test("type ping\nresp-time 0\n")), ElementsAre("6:11 resp-time-zero"));
  EXPECT_THAT(told(with_test("type ping_ext\nresp-time 0\n")), IsEmpty()) << "of no effect there";
  EXPECT_THAT(told(with_test("type ping_ext\nperiod 2147483\n")), IsEmpty());
  EXPECT_THAT(told(with_test("type ping_ext\nperiod 2147484\n")), ElementsAre("6:8 out-of-range"));
  EXPECT_THAT(told(with_test("type ping_ext\ncount 0\n")), ElementsAre("6:7 out-of-range"));
}

TEST(CheckModelTest, LeaseFilesBelongToDhcp) {
  EXPECT_THAT(told(with_interface("lease-file /a\n")), ElementsAre("4:1 bad-option"));
  EXPECT_THAT(told(with_interface("lease-file /a\n", "dhcp")), IsEmpty());
  EXPECT_THAT(told(with_interface("lease-file a\n", "dhcp")), ElementsAre("4:12 bad-option"));
}

TEST(CheckModelTest, NextHopsAreAddressesOfHostsInTheKernelsForm) {
  EXPECT_THAT(told(with_interface("", "kernl")), ElementsAre("3:9 bad-address"));
  EXPECT_THAT(told(with_interface("", "0.0.0.0")), ElementsAre("3:9 bad-address"));
  EXPECT_THAT(told(with_interface("", "2001:db8::1")), ElementsAre("3:9 wrong-family"));
  EXPECT_THAT(told(kBird2 + with_interface6("", "fe80::1")), IsEmpty());
  EXPECT_THAT(told(kBird2 + with_interface6("", "fe80:0::1")), ElementsAre("6:9 not-canonical"));
  EXPECT_THAT(told(with_interface6("", "fe80::1")), ElementsAre("3:9 not-for-bird2"));
  EXPECT_THAT(told(with_interface6("", "fe80::1%a")), ElementsAre("3:9 bad-address"));
}

TEST(CheckModelTest, WaitsAreWholeSeconds) {
  EXPECT_THAT(told(with_test("type ping_ext\ntimeout 0\n")), ElementsAre("6:9 bad-timeout"));
  EXPECT_THAT(told(with_test("type ping_ext\ntimeout 6000\n")), IsEmpty());
  EXPECT_THAT(told(with_test("type ping_ext\ntimeout 7000\n")), ElementsAre("6:9 slow-detection"));
}

TEST(CheckModelTest, KeywordsOfIpv4TestsInAnIpv6TestChangeAnother) {
  EXPECT_THAT(told(kBird2 + with_interface6("test 1 {\ntype ping\ncount 3\n}\n", "fe80::1")),
              ElementsAre("9:1 unused-keyword"));
  EXPECT_THAT(told(kBird2 + with_interface6("test 1 {\ntype ping_ext\n}\n", "fe80::1")),
              ElementsAre("8:6 unknown-type"));
}

TEST(CheckModelTest, TestsOfTheNextHopAreTheSame) {
  EXPECT_THAT(told(with_interface("test 1 {\ntype ping\n}\ntest 2 {\ntype ping\n}\n")),
              ElementsAre("7:1 same-target-twice"));
  EXPECT_THAT(told(with_interface("test 1 {\ntype ping\n}\ntest 2 {\ntype ping\n"
                                  "target 192.0.2.1\n}\n")),
              ElementsAre("9:8 same-target-twice"));
}

TEST(CheckModelTest, ARuleOfBothFamiliesNeedsBird2) {
  const std::string lines =
      "interface a {\nweight 1\n}\ninterface6 b {\nweight 1\n}\ntarget {\naddress 0.0.0.0/0\n"
      "address ::/0\n}\n";
  const std::string health =
      "health {\ninterface a {\nnexthop dhcp\n}\ninterface6 b {\nnexthop dhcp\n}\n}\n";
  const std::string other =
      "rule 2_ipv6 {\ninterface6 b {\nweight 1\n}\ntarget {\n"
      "address 2001:db8::/32\n}\n}\n";
  EXPECT_THAT(told(health + "rule 1_ipv4 {\n" + lines + "}\n" + other),
              ElementsAre("13:1 wrong-family", "18:9 wrong-family"));
  EXPECT_THAT(told(kBird2 + health + "rule 1_ipv4 {\n" + lines + "}\n" + other), IsEmpty());
}

TEST(CheckModelTest, ARuleHasANameInOneFamilyOnly) {
  const std::string members = "interface a {\nweight 1\n}\ninterface6 a {\nweight 1\n}\n";
  const std::string target = "target {\naddress 0.0.0.0/0\n}\n";
  EXPECT_THAT(told(with_rule(members + target)), ElementsAre("13:1 wrong-family"));
  EXPECT_THAT(told(kBird2 + with_rule(members + target)), ElementsAre("16:1 wrong-family"));
  EXPECT_THAT(told(with_rule("interface a {\nweight 1\n}\n" + members + target)),
              ElementsAre("13:1 given-twice", "16:1 wrong-family"));
}

TEST(CheckModelTest, WeightsAndMetricsAreForBird2) {
  const std::string lines =
      "interface a {\nweight 300\n}\ntarget {\naddress 203.0.113.7/24\nmetric 3000000000\n}\n";
  const std::string six =
      "rule 1_ipv6 {\ninterface6 a {\nweight 1\n}\ntarget {\naddress ::/0\n}\n}\n";
  EXPECT_THAT(told(with_rule(lines) + six),
              ElementsAre("11:8 weight-too-large", "14:9 not-for-bird2", "15:8 out-of-range"));
  EXPECT_THAT(told(kBird2 + with_rule(lines) + six), IsEmpty());
}

TEST(CheckModelTest, DestinationsHaveALengthAndNoHostBits) {
  const auto rule = [](const std::string& destination) {
    return with_interface("").replace(with_interface("").find("0.0.0.0/0"), 9, destination);
  };
  EXPECT_THAT(told(rule("default")), ElementsAre("11:9 not-for-bird2"));
  EXPECT_THAT(told(rule("192.0.2.7")), ElementsAre("11:9 not-for-bird2"));
  EXPECT_THAT(told(rule("192.0.2.7/32")), IsEmpty());
  EXPECT_THAT(told(rule("10.0.0.0/255.0.0.0")), ElementsAre("11:9 bad-prefix"));
  EXPECT_THAT(told(rule("::/0")), ElementsAre("11:9 wrong-family"));
  EXPECT_THAT(told(rule("0.0.0.0/0\naddress 0.0.0.0/00")),
              ElementsAre("12:9 duplicate-destination"));
}

TEST(CheckModelTest, ADestinationTwiceInOneRuleIsOne) {
  const auto text_of = [](const std::string& destinations) {
    const Findings findings = check_text(
        with_interface("").replace(with_interface("").find("0.0.0.0/0"), 9, destinations), nullptr);
    return findings.all().size() == 1 ? findings.all().front().text : std::string();
  };
  EXPECT_EQ(text_of("0.0.0.0/0\naddress 0.0.0.0/0"),
            "'0.0.0.0/0' is a destination of this rule in line 11 already: the daemon takes both "
            "for one");
  EXPECT_EQ(text_of("0.0.0.0/0\naddress 0.0.0.0/00"),
            "'0.0.0.0/00' is a destination of this rule in line 11 already: the second adds "
            "nothing to the first");
}

TEST(CheckModelTest, BurstsToOneTargetAreCountedTogether) {
  const auto text_of = [](const std::string& first, const std::string& second) {
    const Findings findings = check_text(
        with_interface("test 1 {\ntype " + first + "\n}\ntest 2 {\ntype " + second + "\n}\n"),
        nullptr);
    return findings.all().size() == 1 ? findings.all().front().text : std::string();
  };
  const std::string probed = "'192.0.2.1' is probed by the test in line 4 too: ";
  EXPECT_EQ(text_of("ping", "ping"), probed + "one probe serves both");
  EXPECT_EQ(text_of("ping", "ping_ext"), probed + "their outcomes are counted together");
  EXPECT_EQ(text_of("ping_ext", "ping"), probed + "their outcomes are counted together");
  EXPECT_EQ(text_of("ping_ext", "ping_ext"), probed + "their outcomes are counted together");
}

TEST(CheckModelTest, AMemberOfTheOtherFamilyIsNotRenamedToWhatHealthLacks) {
  const auto hint_of = [](const std::string& health) {
    const Findings findings =
        check_text("health {\n" + health + "}\nrule 1_ipv4 {\ninterface6 a {\nweight 1\n}\n" +
                       "target {\naddress 0.0.0.0/0\n}\n}\n",
                   nullptr);
    for (const Finding& finding : findings.all()) {
      if (finding.code == "wrong-family") return finding.hint;
    }
    return std::string();
  };
  const std::string six = "interface6 a {\nnexthop dhcp\n}\n";
  EXPECT_EQ(hint_of(six), "make a rule of its own for each family");
  EXPECT_EQ(hint_of("interface a {\nnexthop dhcp\n}\n" + six),
            "write 'interface a', or make a rule of its own for each family");
}

TEST(CheckModelTest, AMisspeltMemberIsToldOnce) {
  EXPECT_THAT(told("health {\ninterface wan1 {\nnexthop dhcp\n}\n}\nrule 1_ipv4 {\n"
                   "interface wna1 {\nweight 1\n}\ntarget {\naddress 0.0.0.0/0\n}\n}\n"),
              ElementsAre("7:11 no-such-interface"));
}

TEST(CheckModelTest, WhatAMisspeltKeywordLeavesOutIsNotTold) {
  const auto with = [](const std::string& word, const std::string& other) {
    std::string text = with_test("type ping\n");
    return text.replace(text.rfind(word), word.size(), other);
  };
  EXPECT_THAT(told(with("weight", "wieght")), ElementsAre("11:1 unknown-keyword"));
  EXPECT_THAT(told(with("nexthop", "NextHop")), ElementsAre("3:1 unknown-keyword"));
  EXPECT_THAT(told(with("type", "tpye")), ElementsAre("5:1 unknown-keyword"));
  EXPECT_THAT(told(with("target", "tagret")), ElementsAre("13:1 unknown-keyword"));
  EXPECT_THAT(told(with("address", "adress")), ElementsAre("14:1 unknown-keyword"));
  EXPECT_THAT(told(with("weight", "colour")),
              ElementsAre("10:1 no-weight", "11:1 unknown-keyword"));
  // A word of another block has not been misspelt.
  EXPECT_THAT(told(with("weight", "rtt")), ElementsAre("10:1 no-weight", "11:1 wrong-depth"));
}

TEST(CheckModelTest, KeywordsInTheWrongBlockAreTold) {
  EXPECT_THAT(
      told(with_rule("weight 2\n", "1_ipv6")),
      ElementsAre("2:1 unserved", "5:1 unused-interface", "9:1 empty-rule", "10:1 wrong-depth"));
  EXPECT_THAT(told("nexthop dhcp\n"), ElementsAre("1:1 wrong-depth"));
  EXPECT_THAT(told("colour red\n"), ElementsAre("1:1 unknown-section"));
  EXPECT_THAT(told(with_interface("tset 1 {\n}\n")), ElementsAre("4:1 unknown-keyword"));
  EXPECT_THAT(told(with_interface("origin eth0 {\n}\n")), ElementsAre("4:1 brackets"));
}

TEST(CheckModelTest, OptionsAreKnownWords) {
  EXPECT_THAT(told("options {\nreplies\nwire\nkeep-last-routes yes\ndiscovery {\n}\n}\n"),
              ElementsAre("2:1 bad-option", "3:1 bad-option", "4:18 bad-option", "5:1 bad-option"));
  EXPECT_THAT(told("options x {\n}\n"), ElementsAre("1:9 bad-option"));
}

TEST(CheckModelTest, AWordOfBirdsIsNoDeviceForIt) {
  EXPECT_THAT(told(with_interface("origin link\n")), IsEmpty());
  EXPECT_THAT(told(kBird2 + with_interface("origin link\n")), ElementsAre("7:8 unsafe-name"));
}

TEST(CheckModelTest, RepliesOfFilteringDevicesNeedAWayBack) {
  const FakeMachine machine;
  const auto told_by = [&machine](const std::string& text) {
    return told(check_text(text, &machine));
  };
  const auto text = [](const std::string& device, const std::string& target) {
    return with_interface("origin " + device + "\ntest 1 {\ntype ping\ntarget " + target + "\n}\n");
  };
  EXPECT_THAT(told_by(text("strict0", "198.51.100.7")), ElementsAre("7:8 rp-filter"));
  EXPECT_THAT(told_by(text("loose0", "198.51.100.7")), IsEmpty());
  EXPECT_THAT(told_by(text("loose0", "198.51.100.9")), ElementsAre("7:8 rp-filter"));
  EXPECT_THAT(told_by(text("strict0", "198.51.100.8")), IsEmpty());
  EXPECT_THAT(told_by("options {\nreplies wire\n}\n" + text("strict0", "198.51.100.7")), IsEmpty());
  EXPECT_THAT(told_by(with_interface("source_address 192.0.2.10\norigin strict0\ntest 1 {\n"
                                     "type ping\ntarget 198.51.100.7\n}\n")),
              IsEmpty());
}

TEST(CheckModelTest, AnothersDefaultRouteIsHeldAgainstTheRoutingDaemons) {
  FakeMachine machine;
  const auto told_with = [&](const KernelRoute& route, const std::string& text) {
    machine.own_routes.push_back(route);
    return told(check_text(text, &machine));
  };
  const std::string metric =
      kBird2 +
      with_interface("").replace(with_interface("").find("0.0.0.0/0"), 9, "0.0.0.0/0\nmetric 2000");
  EXPECT_THAT(told_with({"0.0.0.0/0", 33, 16, {}}, with_interface("")), IsEmpty());
  EXPECT_THAT(told(check_text(metric, &machine)), ElementsAre("14:9 shadowed-default"));
  EXPECT_THAT(told_with({"0.0.0.0/0", 40, 12, {}}, with_interface("")),
              ElementsAre("11:9 shadowed-default"));
}

TEST(CheckModelTest, WhatCannotBeAskedIsPassedOver) {
  const FakeMachine machine;
  EXPECT_THAT(told(check_text(with_interface("origin secret0\n"), &machine)), IsEmpty());
}

}  // namespace lbctl
