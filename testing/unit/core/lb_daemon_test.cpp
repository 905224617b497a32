#include "core/lb_daemon.h"

#include <gmock/gmock.h>

#include "support/core_fixture.h"
#include "support/recorded_device.h"
#include "support/recorded_log.h"
#include "tests/echo_probe.h"

using testing::ElementsAre;
using testing::IsEmpty;
using testing::Key;
using testing::SizeIs;

namespace {

class LBDaemonTest : public CoreFixture {
 protected:
  // "i" for interfaces, "r" for rules: of IPv4, then of IPv6.
  std::string presence(const std::string& vrf) const {
    std::string text;
    for (const bool ipv6 : {false, true}) {
      const VrfPresence found = daemon_.presence(vrf, ipv6);
      text += found.has_interfaces ? "i" : "-";
      text += found.has_rules ? "r" : "-";
    }
    return text;
  }
};

}  // namespace

TEST_F(LBDaemonTest, ActiveConfigurationIsWhatTheFileSays) {
  EXPECT_TRUE(
      load("health {\n interface eth0 {\n }\n interface6 eth1 {\n }\n}\nrule 1_ipv4 {\n}\n"));
  EXPECT_THAT(daemon_.config().interfaces, ElementsAre(Key("eth0")));
  EXPECT_THAT(daemon_.config().interfaces6, ElementsAre(Key("eth1")));
  EXPECT_THAT(daemon_.config().rules, ElementsAre(Key("1_ipv4")));
  EXPECT_THAT(log_records(), IsEmpty());
}

TEST_F(LBDaemonTest, TestsAreThoseOfTheProduct) {
  load("health {\n interface eth0 {\n }\n interface6 eth1 {\n }\n}\n");
  ASSERT_THAT(interface("eth0").tests, ElementsAre(Key(1)));
  EXPECT_NE(dynamic_cast<LBTestICMP*>(interface("eth0").tests.at(1).get()), nullptr);
  EXPECT_EQ(interface("eth0").tests.at(1)->describe(), "target: , resp_time: 5000");
  ASSERT_THAT(interface6("eth1").tests, ElementsAre(Key(1)));
  EXPECT_NE(dynamic_cast<LBTestICMP6*>(interface6("eth1").tests.at(1).get()), nullptr);
  EXPECT_EQ(interface6("eth1").tests.at(1)->describe(), "target: , resp_time: 5000");
}

TEST_F(LBDaemonTest, MissingFileLoadsAsNothing) {
  EXPECT_TRUE(daemon_.load_configuration("/nonexistent/lb.conf"));
  EXPECT_TRUE(daemon_.config().interfaces.empty());
  EXPECT_TRUE(daemon_.config().rules.empty());
  EXPECT_THAT(
      log_records(),
      ElementsAre(LoggedError("wan_lb: configuration file not found: /nonexistent/lb.conf")));
}

TEST_F(LBDaemonTest, FileWithErrorsIsUsedAsFarAsItWasRead) {
  EXPECT_TRUE(load("health {\n interface eth0 {\n }\n}\n}\nrule 1_ipv4 {\n}\n"));
  EXPECT_THAT(daemon_.config().interfaces, ElementsAre(Key("eth0")));
  EXPECT_THAT(interface("eth0").tests, IsEmpty());  // no test by default then
  EXPECT_TRUE(daemon_.config().rules.empty());
  EXPECT_THAT(log_records(), SizeIs(1));
  EXPECT_EQ(presence("default"), "i---");
}

// --- who is served ---

TEST_F(LBDaemonTest, NamespacesAreThoseNamedAndTheDefaultOne) {
  load("");
  EXPECT_THAT(daemon_.namespaces(), ElementsAre("default"));
  load(
      "health {\n interface eth0 {\n namespace red\n }\n interface6 eth0 {\n namespace zone\n "
      "}\n}\n"
      "rule 1_ipv4 {\n namespace blue\n}\n");
  EXPECT_THAT(daemon_.namespaces(), ElementsAre("blue", "default", "red", "zone"));
}

TEST_F(LBDaemonTest, PresenceIsByVrfAndFamily) {
  load(
      "health {\n interface eth0 {\n }\n interface eth1 {\n namespace red\n }\n"
      " interface6 eth2 {\n namespace blue\n }\n}\n"
      "rule 1_ipv4 {\n}\nrule 2_ipv6 {\n namespace red\n}\nrule 3_ipv6 {\n namespace blue\n}\n");
  EXPECT_EQ(presence("default"), "ir--");
  EXPECT_EQ(presence("red"), "i--r");
  EXPECT_EQ(presence("blue"), "--ir");
  EXPECT_EQ(presence("unknown"), "----");
}

TEST_F(LBDaemonTest, RuleWithoutIpv4InItsNameCountsForIpv6) {
  load("rule 1 {\n}\nrule 2ipv4 {\n namespace red\n}\nrule \"3 ipv4\" {\n namespace blue\n}\n");
  EXPECT_EQ(presence("default"), "---r");
  EXPECT_EQ(presence("red"), "-r--");
  EXPECT_EQ(presence("blue"), "-r--");
}

// --- watchdog ---

TEST_F(LBDaemonTest, WatchdogHearsOfLifeThenTellsItsTimeOut) {
  daemon_.register_with_watchdog();
  EXPECT_THAT(recorded_device::calls(), ElementsAre("send_signal_live 1 1", "set_timeout"));
  EXPECT_EQ(recorded_device::words().learned, daemon_.watchdog_timeout());
}
