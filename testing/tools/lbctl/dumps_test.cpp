// Dump files in their directory: which are missing, which are half written.
#include "lbctl/dumps.h"

#include <sys/stat.h>

#include <chrono>
#include <fstream>
#include <functional>
#include <string_view>

#include "lbctl/command.h"
#include "lbctl/sample_dumps.h"
#include "support/wrapped_calls.h"

namespace lbctl {
namespace {

class DumpsTest : public testing::Test {
 protected:
  // What read_dumps() says of the directory; it has to end the subcommand with status 3.
  std::string complaint() const {
    try {
      read_dumps(directory_.path());
    } catch (const Failure& failure) {
      EXPECT_EQ(failure.exit_status(), kExitUnreadable);
      return failure.what();
    }
    return "";
  }

  // The dump of the rules, with what the daemon does to it before each look at it; looks count
  // from 1.
  std::vector<RuleDump> rules_while(const std::function<void(int)>& daemon) {
    int look = 0;
    CallHook hook(wrapped::open, [&](const char* path, int flags, mode_t mode) {
      if (std::string_view(path).ends_with("/wlb_rules.bin")) daemon(++look);
      return wrapped::open.real(path, flags, mode);
    });
    return read_dumps(directory_.path()).rules;
  }

  void append_to_rules(const std::string& text) const {
    std::ofstream(directory_.file("wlb_dump/wlb_rules.bin"), std::ios::app) << text;
  }

  OutputDirectory directory_;
};

TEST_F(DumpsTest, AllFiles) {
  directory_.put_all();
  directory_.put("wlb_ipv6_outbounds.bin",
                 outbound_record().text(0, "wan6").byte(188 + 57, 1).bytes());
  directory_.date("wlb_ipv4_outbounds.bin", 1000);
  directory_.date("wlb_ipv6_outbounds.bin", 1002);
  directory_.date("wlb_rules.bin", 1001);
  directory_.date("wlb_routes.bin", 1001);
  const Dumps dumps = read_dumps(directory_.path());
  ASSERT_EQ(dumps.interfaces.size(), 2U);
  EXPECT_EQ(dumps.interfaces[0].name, "wan1");
  EXPECT_EQ(dumps.interfaces[1].name, "wan6");
  EXPECT_TRUE(dumps.interfaces[1].ipv6);
  ASSERT_EQ(dumps.rules.size(), 1U);
  ASSERT_EQ(dumps.rules[0].routes.size(), 1U);
  EXPECT_EQ(dumps.newest.tv_sec, 1002);
  EXPECT_FALSE(dumps.is_stale(1012));
  EXPECT_TRUE(dumps.is_stale(1013));
}

TEST_F(DumpsTest, OneFamilyOnly) {
  directory_.put("wlb_ipv6_outbounds.bin", outbound_record().byte(188 + 57, 1).bytes());
  const Dumps dumps = read_dumps(directory_.path());
  ASSERT_EQ(dumps.interfaces.size(), 1U);
  EXPECT_TRUE(dumps.interfaces[0].ipv6);
  EXPECT_TRUE(dumps.rules.empty());
}

TEST_F(DumpsTest, AFamilyThatIsNotWantedIsNotRead) {
  directory_.put("wlb_ipv4_outbounds.bin", "not a dump");
  EXPECT_TRUE(read_dumps(directory_.path(), {.ipv4 = false}).interfaces.empty());
  EXPECT_NE(complaint().find("wlb_ipv4_outbounds.bin"), std::string::npos) << complaint();
}

TEST_F(DumpsTest, NoneAtAll) {
  EXPECT_NE(complaint().find(directory_.path() + "/wlb_dump"), std::string::npos) << complaint();
  EXPECT_NE(complaint().find("no dump files"), std::string::npos) << complaint();
}

TEST_F(DumpsTest, EmptyFilesOfRulesAreFilesOfNothing) {
  directory_.put_all();
  directory_.put("wlb_rules.bin", "");
  directory_.put("wlb_routes.bin", "");
  const Dumps dumps = read_dumps(directory_.path());
  EXPECT_FALSE(dumps.interfaces.empty());
  EXPECT_TRUE(dumps.rules.empty());
}

// It would pass for a router without any interface, on which all is well.
TEST_F(DumpsTest, EmptyFileOfInterfacesIsNoFileOfNone) {
  directory_.put_all();
  directory_.put("wlb_ipv4_outbounds.bin", "");
  EXPECT_EQ(complaint(),
            directory_.file("wlb_dump/wlb_ipv4_outbounds.bin") + ": empty; is the disk full?");
}

TEST_F(DumpsTest, TheFileThatIsWrongIsNamed) {
  directory_.put_all();
  directory_.put("wlb_routes.bin", route_record().bytes() + "half");
  EXPECT_EQ(complaint(), directory_.file("wlb_dump/wlb_routes.bin") +
                             ": truncated or foreign: 113 bytes are no whole number of records of "
                             "109");
}

TEST_F(DumpsTest, SpecialFiles) {
  directory_.put_all();
  const std::string path = directory_.file("wlb_dump/wlb_ipv6_outbounds.bin");
  ASSERT_EQ(mkfifo(path.c_str(), 0600), 0);
  EXPECT_EQ(complaint(), path + ": not a regular file");
}

TEST_F(DumpsTest, AHalfWrittenFileIsReadAgain) {
  directory_.put_all();
  const std::string whole = rule_record().bytes();
  directory_.put("wlb_rules.bin", whole.substr(0, 1000));
  const auto rules = rules_while([&](int look) {
    if (look == 11) append_to_rules(whole.substr(1000));
  });
  ASSERT_EQ(rules.size(), 1U);
  EXPECT_EQ(rules[0].number, 7);
}

// The daemon empties a file before it writes it anew: what follows a long half is not empty for
// good.
TEST_F(DumpsTest, AFileThatIsEmptyForAMomentIsReadAgain) {
  directory_.put_all();
  const std::string whole = rule_record().bytes();
  directory_.put("wlb_rules.bin", whole.substr(0, 1000));
  const auto rules = rules_while([&](int look) {
    if (look == 21) directory_.put("wlb_rules.bin", "");
    if (look == 24) append_to_rules(whole);
  });
  ASSERT_EQ(rules.size(), 1U);
}

TEST_F(DumpsTest, AHalfWrittenFileIsWaitedForASecondAtMost) {
  directory_.put_all();
  directory_.put("wlb_rules.bin", "x");
  const auto start = std::chrono::steady_clock::now();
  EXPECT_NE(complaint(), "");
  const auto taken = std::chrono::steady_clock::now() - start;
  EXPECT_GE(taken, std::chrono::milliseconds(900));
  EXPECT_LT(taken, std::chrono::seconds(5));
}

}  // namespace
}  // namespace lbctl
