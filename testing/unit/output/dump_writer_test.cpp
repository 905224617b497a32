// The dump operations of LBOutput.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/resource.h>

#include <csignal>

#include "support/output_fixture.h"
#include "support/recorded_log.h"
#include "support/wrapped_calls.h"

using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;

namespace {

class DumpWriterTest : public OutputFixture {};

// Nothing that is written to the file at `full` has room.
class FullDisk {
 public:
  explicit FullDisk(const std::string& full)
      : hook_(wrapped::fopen, [full](const char* path, const char* mode) {
          return wrapped::fopen.real(path == full ? "/dev/full" : path, mode);
        }) {}

 private:
  CallHook<FILE*(const char*, const char*)> hook_;
};

// A call that fails once, after others of its kind, and how many records each file has then: those
// before a text that cannot be formatted are written.
struct FailingCall {
  const char* name;
  const char* call;
  int skip;
  const char* message;
  std::vector<size_t> records;  // of the outbounds, or of the rules and the routes
};

class DumpWriterFailureTest : public DumpWriterTest,
                              public testing::WithParamInterface<FailingCall> {};

}  // namespace

// Of a rule that BIRD gets: without host bits, and without what it would not take.
TEST_F(DumpWriterTest, RoutesHaveTheDestinationsThatAreWritten) {
  config_.options->bird2_routes = true;
  config_.rules.clear();
  LBRule& rule = config_.rules["3_ipv4"];
  for (const char* text : {"10.1.2.3/8", "default", "no prefix", "2001:db8::1/32"}) {
    rule.targets[text];
  }
  write();
  const std::vector<DumpRoute> records = routes();
  ASSERT_EQ(records.size(), 3u);
  EXPECT_STREQ(records[0].destination, "10.0.0.0/8");
  EXPECT_STREQ(records[1].destination, "2001:db8::/32");
  EXPECT_STREQ(records[2].destination, "0.0.0.0/0");
  EXPECT_EQ(int32_t{records[2].index}, 3);
  EXPECT_THAT(log_records(), IsEmpty());
}

// --- the outbounds dump ---

TEST_F(DumpWriterTest, OutboundsInNameOrder) {
  write();
  const std::vector<DumpOutbound> records = outbounds();
  ASSERT_EQ(records.size(), 2u);
  EXPECT_STREQ(records[0].name, "eth0");
  EXPECT_STREQ(records[0].nexthop, "192.0.2.1");
  EXPECT_EQ(records[0].active, 1);
  EXPECT_EQ(int32_t{records[0].success_age}, 4);
  EXPECT_EQ(records[0].test_count, 1);
  EXPECT_STREQ(records[0].tests[0].target, "192.0.2.50");
  EXPECT_EQ(int32_t{records[0].tests[0].success_count}, 3);
  EXPECT_STREQ(records[1].name, "eth1");
  EXPECT_STREQ(records[1].vrf, "red");
}

TEST_F(DumpWriterTest, OutboundsNeedInterfaces) {
  make_dump_directory();
  output_.dump_outbounds({}, nullptr, false);
  EXPECT_FALSE(directory_.exists("out/wlb_dump/wlb_ipv4_outbounds.bin"));
  EXPECT_EQ(call_count("fopen"), 0);
}

TEST_F(DumpWriterTest, OutboundsFileThatCannotBeOpened) {
  block(dump_path("wlb_ipv4_outbounds.bin"));
  write();
  EXPECT_THAT(log_records(), ElementsAre(LoggedError("wan_lb: error open file for writing '" +
                                                     dump_path("wlb_ipv4_outbounds.bin") + "'")));
  EXPECT_EQ(rules().size(), 2u);  // the others are written all the same
  EXPECT_THAT(status(), HasSubstr("eth0"));
}

TEST_F(DumpWriterTest, FullDiskIsSeenWithTheFirstWrite) {
  make_dump_directory();
  const FullDisk disk(dump_path("wlb_ipv4_outbounds.bin"));
  output_.dump_outbounds(wall_now(), &config_.interfaces, false);
  EXPECT_THAT(log_records(),
              ElementsAre(LoggedError("wan_lb: <dump_outbounds> error writing data block")));
  EXPECT_EQ(call_count("fwrite"), 1);
}

// --- the rules and routes dump ---

TEST_F(DumpWriterTest, RulesAndRoutes) {
  write();
  const std::vector<DumpRule> rule_records = rules();
  ASSERT_EQ(rule_records.size(), 2u);
  EXPECT_EQ(int32_t{rule_records[0].number}, 1);
  EXPECT_EQ(rule_records[0].failover, 1);
  EXPECT_EQ(rule_records[0].ipv6, 0);
  EXPECT_EQ(rule_records[0].member_count, 1);
  EXPECT_STREQ(rule_records[0].members[0].name, "eth0");
  EXPECT_EQ(int32_t{rule_records[1].number}, 2);
  EXPECT_EQ(rule_records[1].ipv6, 1);
  EXPECT_STREQ(rule_records[1].vrf, "red");

  const std::vector<DumpRoute> route_records = routes();
  ASSERT_EQ(route_records.size(), 3u);
  EXPECT_STREQ(route_records[0].destination, "0.0.0.0/0");
  EXPECT_STREQ(route_records[0].nexthop, "192.0.2.1");
  EXPECT_EQ(int32_t{route_records[0].metric}, 10);
  EXPECT_EQ(int32_t{route_records[0].index}, 1);
  EXPECT_EQ(int32_t{route_records[0].rule_number}, 1);
  EXPECT_EQ(route_records[0].ipv6, 0);
  EXPECT_STREQ(route_records[1].destination, "10.0.0.0/8");
  EXPECT_STREQ(route_records[1].nexthop, "");
  EXPECT_EQ(int32_t{route_records[1].metric}, -1);
  EXPECT_EQ(int32_t{route_records[1].index}, 2);
  EXPECT_STREQ(route_records[2].destination, "::/0");
  EXPECT_EQ(int32_t{route_records[2].index}, 1);  // counted within the rule
  EXPECT_EQ(int32_t{route_records[2].rule_number}, 2);
  EXPECT_EQ(route_records[2].ipv6, 1);
}

TEST_F(DumpWriterTest, EmptyNextHopIsNotWritten) {
  set_nexthop("1_ipv4", "0.0.0.0/0", "");
  write();
  EXPECT_STREQ(routes().at(0).nexthop, "");
}

TEST_F(DumpWriterTest, AtMostFiftyRoutesPerRule) {
  LBRule& rule = config_.rules["1_ipv4"];
  rule.targets.clear();
  for (int i = 100; i < 151; ++i) rule.targets["10.0." + std::to_string(i) + ".0/24"];
  write();
  const std::vector<DumpRoute> records = routes();
  ASSERT_EQ(records.size(), 51u);  // 50 and the other rule's
  EXPECT_EQ(int32_t{records[49].index}, 50);
  EXPECT_STREQ(records[49].destination, "10.0.149.0/24");
  EXPECT_EQ(int32_t{records[50].rule_number}, 2);
}

TEST_F(DumpWriterTest, RulesNeedNames) {
  make_dump_directory();
  output_.dump_rules_and_routes(config_.rules, nullptr);
  EXPECT_FALSE(directory_.exists("out/wlb_dump/wlb_rules.bin"));
  EXPECT_EQ(call_count("fopen"), 0);
}

TEST_F(DumpWriterTest, NoRulesMakeEmptyFiles) {
  config_.rules.clear();
  write();
  EXPECT_TRUE(directory_.exists("out/wlb_dump/wlb_rules.bin"));
  EXPECT_THAT(rules(), IsEmpty());
  EXPECT_TRUE(directory_.exists("out/wlb_dump/wlb_routes.bin"));
  EXPECT_THAT(routes(), IsEmpty());
}

TEST_F(DumpWriterTest, RuleNameWithoutTwoNumbersStopsTheDump) {
  config_.rules["1"];  // sorts first: an IPv6 rule by its name, with no place in the dump
  config_.rules["0_ipv4"];
  write();
  EXPECT_THAT(log_records(),
              ElementsAre(LoggedError("<dump_rules_and_routes> wan_lb: sscanf failed")));
  ASSERT_EQ(rules().size(), 1u);
  EXPECT_EQ(int32_t{rules()[0].number}, 0);
  EXPECT_THAT(routes(), IsEmpty());
  EXPECT_THAT(status(), HasSubstr("eth0"));
}

TEST_F(DumpWriterTest, RulesFileThatCannotBeOpened) {
  block(dump_path("wlb_rules.bin"));
  write();
  EXPECT_THAT(log_records(), ElementsAre(LoggedError("wan_lb: Error open file for writing '" +
                                                     dump_path("wlb_rules.bin") + "'")));
  EXPECT_FALSE(directory_.exists("out/wlb_dump/wlb_routes.bin"));
  EXPECT_THAT(status(), HasSubstr("eth0"));
}

TEST_F(DumpWriterTest, RoutesFileThatCannotBeOpened) {
  block(dump_path("wlb_routes.bin"));
  write();
  EXPECT_THAT(log_records(), ElementsAre(LoggedError("wan_lb: Error open file for writing '" +
                                                     dump_path("wlb_routes.bin") + "'")));
  EXPECT_THAT(rules(), IsEmpty());
  EXPECT_EQ(call_count("fopen"), 4);
  EXPECT_EQ(call_count("fclose"), 3);  // outbounds, rules, status
}

TEST_F(DumpWriterTest, FullDiskIsSeenWithTheRoutes) {
  make_dump_directory();
  const FullDisk disk(dump_path("wlb_routes.bin"));
  output_.dump_rules_and_routes(config_.rules, &config_);
  EXPECT_THAT(log_records(), ElementsAre(LoggedError("wan_lb: error dumping routes")));
  EXPECT_EQ(call_count("fwrite"), 2);
}

// --- failures in either dump ---

// A disk with room for one record and a half: the file has what the disk has taken.
TEST_F(DumpWriterTest, DiskThatFillsUpCutsTheFile) {
  make_dump_directory();
  constexpr size_t kRoom = sizeof(DumpOutbound) * 3 / 2;
  struct rlimit before {};
  ASSERT_EQ(getrlimit(RLIMIT_FSIZE, &before), 0);
  const struct rlimit small { kRoom, before.rlim_max };
  signal(SIGXFSZ, SIG_IGN);
  ASSERT_EQ(setrlimit(RLIMIT_FSIZE, &small), 0);
  output_.dump_outbounds(wall_now(), &config_.interfaces, false);
  setrlimit(RLIMIT_FSIZE, &before);
  signal(SIGXFSZ, SIG_DFL);
  EXPECT_THAT(log_records(),
              ElementsAre(LoggedError("wan_lb: <dump_outbounds> error writing data block")));
  EXPECT_EQ(directory_.read("out/wlb_dump/wlb_ipv4_outbounds.bin").size(), kRoom);
}

TEST_P(DumpWriterFailureTest, StopsTheDump) {
  const FailingCall& failing = GetParam();
  make_dump_directory();
  const Fault fault(failing.call, EIO, failing.skip, /*times=*/1);
  std::vector<size_t> records;
  if (failing.records.size() == 1) {
    output_.dump_outbounds(wall_now(), &config_.interfaces, false);
    records = {outbounds().size()};
  } else {
    output_.dump_rules_and_routes(config_.rules, &config_);
    records = {rules().size(), routes().size()};
  }
  EXPECT_THAT(log_records(), ElementsAre(LoggedError(failing.message)));
  EXPECT_EQ(records, failing.records);
  EXPECT_EQ(call_count("fclose"), static_cast<int>(records.size()));
}

INSTANTIATE_TEST_SUITE_P(
    Calls, DumpWriterFailureTest,
    testing::Values(
        FailingCall{"OutboundText",
                    "vsnprintf",
                    4,  // four are in the first record
                    "<dump_outbounds> wan_lb: snprintf failed",
                    {1}},
        FailingCall{
            "Outbounds", "fwrite", 0, "wan_lb: <dump_outbounds> error writing data block", {0}},
        FailingCall{
            "RuleText", "vsnprintf", 0, "<dump_rules_and_routes> wan_lb: snprintf failed", {0, 0}},
        FailingCall{"RouteText",
                    "vsnprintf",
                    4,  // member, VRF; destination, next hop
                    "<dump_rules_and_routes> wan_lb: snprintf failed",
                    {1, 1}},
        FailingCall{"Rules",
                    "fwrite",
                    0,
                    "wan_lb: <dump_rules_and_routes> error writing data block",
                    {0, 0}},
        FailingCall{"Routes", "fwrite", 1, "wan_lb: error dumping routes", {2, 0}}),
    [](const auto& test) { return std::string(test.param.name); });

TEST_F(DumpWriterTest, DumpMessagesAreBehindTheirFlag) {
  set_log_flag(1, false);
  make_dump_directory();
  for (int i = 0; i < 3; ++i) {
    const Fault fault("fwrite", ENOSPC, i);
    write();
  }
  const Fault fault("fopen", EMFILE);
  write();
  EXPECT_THAT(log_records(), IsEmpty());
}
