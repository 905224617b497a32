#include "config/options_section.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>

#include "support/config_fixture.h"
#include "support/recorded_log.h"

using testing::ElementsAre;
using testing::IsEmpty;

namespace {

bool operator==(const Options& a, const Options& b) {
  return a.bird2_routes == b.bird2_routes && a.linux_discovery == b.linux_discovery &&
         a.wire_replies == b.wire_replies && a.keeps_last_routes == b.keeps_last_routes;
}

struct Line {
  const char* name;
  const char* text;
  Options options;
};

class OptionsSectionTest : public ConfigTest {};

class OptionsSectionLineTest : public OptionsSectionTest,
                               public testing::WithParamInterface<Line> {};

struct BadLine {
  const char* name;
  const char* text;  // of the whole file
  const char* message;
};

class OptionsSectionErrorTest : public OptionsSectionTest,
                                public testing::WithParamInterface<BadLine> {};

template <class Case>
std::string case_name(const testing::TestParamInfo<Case>& info) {
  return info.param.name;
}

}  // namespace

TEST_P(OptionsSectionLineTest, TurnsOneOptionOn) {
  ASSERT_TRUE(read(std::string("options {\n") + GetParam().text + "\n}\n"));
  EXPECT_TRUE(*config_.options == GetParam().options);
  EXPECT_THAT(log_records(), IsEmpty());
}

INSTANTIATE_TEST_SUITE_P(
    Options, OptionsSectionLineTest,
    testing::Values(Line{"None", "", {}},
                    Line{"RoutingDaemon", "routing-daemon bird2", {.bird2_routes = true}},
                    Line{"Discovery", "discovery linux", {.linux_discovery = true}},
                    Line{"Replies", "replies wire", {.wire_replies = true}},
                    Line{"KeepLastRoutes", "keep-last-routes", {.keeps_last_routes = true}}),
    case_name<Line>);

TEST_P(OptionsSectionErrorTest, IsLoggedAndChangesNothing) {
  ASSERT_TRUE(read(GetParam().text));
  EXPECT_TRUE(*config_.options == Options{});
  EXPECT_THAT(log_records(), ElementsAre(LoggedError(GetParam().message)));
}

INSTANTIATE_TEST_SUITE_P(
    Lines, OptionsSectionErrorTest,
    testing::Values(
        BadLine{"UnknownOption", "options {\n  colour blue\n}\n",
                "wan_lb: unknown option in line 2 of the configuration file: colour blue"},
        BadLine{"UnknownValue", "\n# x\noptions {\n  replies air\n}\n",
                "wan_lb: illegal value in line 4 of the configuration file: replies air"},
        BadLine{"NoValue", "options {\n  discovery\n}\n",
                "wan_lb: illegal value in line 2 of the configuration file: discovery "},
        BadLine{"ValueTooMany", "options {\n  keep-last-routes no\n}\n",
                "wan_lb: illegal value in line 2 of the configuration file: keep-last-routes no"},
        BadLine{"UpperCase", "options {\n  replies WIRE\n}\n",
                "wan_lb: illegal value in line 2 of the configuration file: replies WIRE"},
        BadLine{"Deeper", "options {\n  more {\n}\n}\n",
                "wan_lb: misplaced option in line 2 of the configuration file: more "},
        BadLine{"OnTheLineOfTheBlock", "options {\n}\noptions { replies wire }\n",
                "wan_lb: misplaced option in line 3 of the configuration file: options replies"},
        BadLine{"OutsideOfTheBlock", "options replies wire\n",
                "wan_lb: misplaced option in line 1 of the configuration file: options replies"},
        BadLine{"NamedBlock", "options all {\n}\n",
                "wan_lb: misplaced option in line 1 of the configuration file: options all"}),
    case_name<BadLine>);

TEST_F(OptionsSectionTest, OptionInADeeperBlockIsMisplaced) {
  ASSERT_TRUE(read("options {\n  replies wire {\n    discovery linux\n  }\n}\n"));
  EXPECT_TRUE(*config_.options == Options{});
  EXPECT_THAT(
      log_records(),
      ElementsAre(
          LoggedError("wan_lb: misplaced option in line 2 of the configuration file: replies wire"),
          LoggedError(
              "wan_lb: misplaced option in line 3 of the configuration file: discovery linux")));
}

TEST_F(OptionsSectionTest, LinesAreCountedAsTheFileHasThem) {
  const std::string long_line(3000, ' ');
  ASSERT_TRUE(read("options {\n" + long_line + "# note\n\n# note\nx\n}\n"));
  EXPECT_THAT(
      log_records(),
      ElementsAre(LoggedError("wan_lb: unknown option in line 5 of the configuration file: x ")));
}

// The section may stand behind the interfaces, and the active configuration is a copy.
TEST_F(OptionsSectionTest, HoldForEveryInterfaceAndCopy) {
  ASSERT_TRUE(
      read("health {\n interface eth0 {\n }\n}\noptions {\n replies wire\n}\n"
           "health {\n interface6 eth1 {\n }\n}\n"));
  EXPECT_TRUE(eth0().options->wire_replies);
  EXPECT_TRUE(eth1().options->wire_replies);
  LBConfig active;
  active.replace(config_);
  EXPECT_TRUE(active.options->wire_replies);
  EXPECT_TRUE(active.interfaces.at("eth0").options->wire_replies);
}
