#include "output/lb_output.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <cstdlib>
#include <ctime>
#include <set>

#include "support/output_fixture.h"
#include "support/recorded_log.h"
#include "support/wrapped_calls.h"

using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::UnorderedElementsAre;

namespace {

class LBOutputTest : public OutputFixture {};

class LBOutputFamilyTest : public LBOutputTest, public testing::WithParamInterface<bool> {};

}  // namespace

// --- one write ---

TEST_P(LBOutputFamilyTest, WorkerWritesItsFiles) {
  const bool ipv6 = GetParam();
  const std::set<std::string> of_rules{dump_path("wlb_rules.bin"), dump_path("wlb_routes.bin")};
  const std::set<std::string> of_ipv4{path("wlb_ipv4.out"), dump_path("wlb_ipv4_outbounds.bin")};
  const std::set<std::string> of_ipv6{path("wlb_ipv6.out"), dump_path("wlb_ipv6_outbounds.bin")};
  write(ipv6);
  EXPECT_THAT(log_records(), IsEmpty());
  for (const std::string& file : of_rules) EXPECT_TRUE(directory_.exists(file)) << file;
  for (const std::string& file : of_ipv4) EXPECT_EQ(directory_.exists(file), !ipv6) << file;
  for (const std::string& file : of_ipv6) EXPECT_EQ(directory_.exists(file), ipv6) << file;
  EXPECT_EQ(outbounds(ipv6).size(), ipv6 ? 1u : 2u);
  EXPECT_EQ(rules().size(), 2u);
  EXPECT_EQ(routes().size(), 3u);

  std::set<std::string> used = of_rules;
  if (!ipv6) used.insert(of_ipv4.begin(), of_ipv4.end());
  EXPECT_EQ(output_.used_files(false), used);
  EXPECT_EQ(output_.used_files(true), ipv6 ? of_ipv6 : std::set<std::string>{});
}

INSTANTIATE_TEST_SUITE_P(Families, LBOutputFamilyTest, testing::Bool(),
                         [](const auto& test) { return test.param ? "Ipv6" : "Ipv4"; });

TEST_F(LBOutputTest, UsedFilesOnlyGrow) {
  write();
  const auto before = output_.used_files(false);
  write(true);
  write();
  EXPECT_EQ(output_.used_files(false), before);
}

// All interfaces of the family are listed, also those of other VRFs, in name order.
TEST_F(LBOutputTest, StatusReport) {
  setenv("TZ", "UTC", 1);
  tzset();
  write();
  EXPECT_EQ(status(),
            "Interface:  eth0\n"
            "  Status:  active\n"
            "  Last Status Change:  Thu Jan  1 00:00:00 1970\n"
            "  +Test:  ping\tTarget: 192.0.2.50\n"
            "    Last Interface Success:  4s\t\n"
            "    Last Interface Failure:  n/a\t\t\n"
            "\n"
            "Interface:  eth1\n"
            "  Status:  failed\n"
            "  Last Status Change:  Thu Jan  1 00:00:00 1970\n"
            "    Last Interface Success:  n/a\t\t\n"
            "    Last Interface Failure:  n/a\t\t\n"
            "\n");
  write(true);
  EXPECT_EQ(status(true),
            "Interface:  eth6\n"
            "  Status:  failed\n"
            "  Last Status Change:  Thu Jan  1 00:00:00 1970\n"
            "  -Test:  ping\tTarget: 2001:db8::50\n"
            "    Last Interface Success:  n/a\t\t\n"
            "    Last Interface Failure:  n/a\t\t\n"
            "\n");
  unsetenv("TZ");
  tzset();
}

TEST_F(LBOutputTest, StatusReportFollowsAChangedTimeZone) {
  edit_state(config_.interfaces.at("eth0"),
             [](InterfaceState& state) { state.last_state_change = kNow; });
  setenv("TZ", "UTC", 1);
  write();
  EXPECT_THAT(status(), HasSubstr("  Last Status Change:  Tue Nov 14 22:13:20 2023\n"));
  setenv("TZ", "THERE-05:30", 1);
  write();
  EXPECT_THAT(status(), HasSubstr("  Last Status Change:  Wed Nov 15 03:43:20 2023\n"));
  unsetenv("TZ");
  tzset();
}

TEST_F(LBOutputTest, TestsInIndexOrder) {
  LBInterface& interface = config_.interfaces.at("eth1");
  for (const int index : {10, 2, 1}) {
    interface.tests[index] =
        std::make_shared<ReportedTest>(make_report("t" + std::to_string(index), 0));
  }
  write();
  EXPECT_THAT(status(), HasSubstr("   Test:  ping\tTarget: t1\n"
                                  "   Test:  ping\tTarget: t2\n"
                                  "   Test:  ping\tTarget: t10\n"));
  const DumpOutbound record = outbounds().at(1);
  EXPECT_EQ(record.test_count, 3);
  EXPECT_STREQ(record.tests[0].target, "t1");
  EXPECT_STREQ(record.tests[2].target, "t10");
}

TEST_F(LBOutputTest, FilesAreWrittenAnewInPlace) {
  make_dump_directory();
  directory_.write("out/wlb_ipv4.out", std::string(100000, 'x'));
  directory_.write("out/wlb_dump/wlb_routes.bin", std::string(100000, 'x'));
  struct stat before {};
  ASSERT_EQ(stat(path("wlb_ipv4.out").c_str(), &before), 0);
  write();
  struct stat after {};
  ASSERT_EQ(stat(path("wlb_ipv4.out").c_str(), &after), 0);
  EXPECT_EQ(before.st_ino, after.st_ino);
  EXPECT_THAT(status(), testing::Not(HasSubstr("x")));
  EXPECT_EQ(routes().size(), 3u);
  EXPECT_EQ(call_count("rename"), 0);
}

TEST_F(LBOutputTest, NoInterfacesMakeEmptyFiles) {
  config_.interfaces.clear();
  write();
  EXPECT_TRUE(directory_.exists("out/wlb_ipv4.out"));
  EXPECT_EQ(status(), "");
  EXPECT_TRUE(directory_.exists("out/wlb_dump/wlb_ipv4_outbounds.bin"));
  EXPECT_THAT(outbounds(), IsEmpty());
}

TEST_F(LBOutputTest, NoLockOfTheModelIsHeldOverFiles) {
  int held = 0;
  CallHook hook(wrapped::fwrite, [&](const void* data, size_t size, size_t count, FILE* file) {
    for (Mutex* mutex : {&config_.interfaces.at("eth0").mutex, &config_.written_mutex}) {
      if (mutex->try_lock()) {
        mutex->unlock();
      } else {
        ++held;
      }
    }
    return wrapped::fwrite.real(data, size, count, file);
  });
  write();
  EXPECT_EQ(held, 0);
  EXPECT_EQ(call_count("fwrite"), 3);
}

// --- the dump directory ---

TEST_F(LBOutputTest, DumpDirectoryIsMadeWithAllRights) {
  mode_t mode = 0;
  CallHook hook(wrapped::mkdir, [&](const char* name, mode_t asked) {
    mode = asked;
    return wrapped::mkdir.real(name, asked);
  });
  write();
  EXPECT_EQ(mode, 0777u);
  EXPECT_TRUE(std::filesystem::is_directory(path("wlb_dump")));
}

TEST_F(LBOutputTest, ExistingDumpDirectoryIsAccepted) {
  make_dump_directory();
  write();
  EXPECT_THAT(log_records(), IsEmpty());
  EXPECT_EQ(outbounds().size(), 2u);
}

TEST_F(LBOutputTest, DumpDirectoryThatCannotBeMadeStopsTheWrite) {
  directory_.write("out/wlb_ipv4.out", "old");
  const Fault fault("mkdir", EACCES);
  write();
  EXPECT_THAT(log_records(), ElementsAre(LoggedError("wan_lb: error create directory: " +
                                                     path("wlb_dump") + ", errno = 13")));
  EXPECT_EQ(status(), "old");
  EXPECT_EQ(call_count("fopen"), 0);
  EXPECT_THAT(output_.used_files(false),
              UnorderedElementsAre(dump_path("wlb_rules.bin"), dump_path("wlb_routes.bin")));
}

TEST_F(LBOutputTest, NextWriteTriesAgain) {
  {
    const Fault fault("mkdir", EACCES);
    write();
  }
  write();
  EXPECT_THAT(status(), HasSubstr("eth0"));
}

TEST_F(LBOutputTest, DirectoryMessageIsBehindItsFlag) {
  set_log_flag(1, false);
  const Fault fault("mkdir", EACCES);
  write();
  EXPECT_THAT(log_records(), IsEmpty());
}

// --- the status file ---

TEST_F(LBOutputTest, StatusFileThatCannotBeOpened) {
  block(path("wlb_ipv4.out"));
  write();
  EXPECT_THAT(log_records(), ElementsAre(LoggedError("wan_lb: error ordering output file " +
                                                     path("wlb_ipv4.out"))));
  EXPECT_EQ(rules().size(), 2u);
}

TEST_F(LBOutputTest, StatusMessageIsBehindItsFlag) {
  set_log_flag(1, false);
  block(path("wlb_ipv4.out"));
  write();
  EXPECT_THAT(log_records(), IsEmpty());
}
