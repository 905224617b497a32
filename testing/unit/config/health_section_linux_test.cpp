// The keywords of an interface that stock Linux needs.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "support/config_fixture.h"
#include "support/recorded_log.h"

using testing::ElementsAre;
using testing::IsEmpty;

namespace {

class HealthSectionLinuxTest : public ConfigTest {};

class HealthSectionHoldDownTest : public HealthSectionLinuxTest,
                                  public testing::WithParamInterface<const char*> {};

}  // namespace

TEST_F(HealthSectionLinuxTest, AreOffByDefault) {
  ASSERT_TRUE(read_interface(""));
  EXPECT_EQ(eth0().lease_file, "");
  EXPECT_EQ(eth0().hold_down, 0);
  EXPECT_FALSE(eth0().discovers_nexthop());
}

TEST_F(HealthSectionLinuxTest, AreReadForBothFamilies) {
  ASSERT_TRUE(read_interface("lease-file \"/var/lib/a b.leases\"\nhold-down 30\nnexthop kernel"));
  EXPECT_EQ(eth0().lease_file, "/var/lib/a b.leases");
  EXPECT_EQ(eth0().hold_down, 30);
  EXPECT_TRUE(eth0().discovers_nexthop());
  ASSERT_TRUE(read_interface6("lease-file /x\nhold-down 2147483647\nhold-down 0"));
  EXPECT_EQ(eth1().lease_file, "/x");
  EXPECT_EQ(eth1().hold_down, 0);
  EXPECT_THAT(log_records(), IsEmpty());
}

TEST_P(HealthSectionHoldDownTest, IllegalTimeIsLogged) {
  ASSERT_TRUE(read_interface(std::string("hold-down 7\nhold-down ") + GetParam()));
  EXPECT_EQ(eth0().hold_down, 7);
  EXPECT_THAT(log_records(), ElementsAre(LoggedError(std::string("wan_lb: illegal hold-down in "
                                                                 "line 4 of the configuration "
                                                                 "file: ") +
                                                     GetParam())));
}

INSTANTIATE_TEST_SUITE_P(Texts, HealthSectionHoldDownTest,
                         testing::Values("", "-1", "x", "3s", "1.5", "+3", "2147483648"));
