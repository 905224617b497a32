// Which test class a word of the configuration makes.
#include "tests/probe_factory.h"

#include <gtest/gtest.h>

#include "tests/burst_probe.h"
#include "tests/echo_probe.h"

TEST(ProbeFactoryTest, MakesTheTypesOfTheConfiguration) {
  const LBTestFactory factory;
  EXPECT_NE(dynamic_cast<LBTestICMP*>(factory.create("ping", false).get()), nullptr);
  EXPECT_NE(dynamic_cast<LBTestPING*>(factory.create("ping_ext", false).get()), nullptr);
  EXPECT_NE(dynamic_cast<LBTestICMP6*>(factory.create("ping", true).get()), nullptr);
}

TEST(ProbeFactoryTest, KnowsNoOtherTypes) {
  const LBTestFactory factory;
  for (const char* type : {"", "ping6", "Ping", "ping ", "ping_ext ", "arp"}) {
    EXPECT_EQ(factory.create(type, false), nullptr) << type;
    EXPECT_EQ(factory.create(type, true), nullptr) << type;
  }
  EXPECT_EQ(factory.create("ping_ext", true), nullptr);
}
