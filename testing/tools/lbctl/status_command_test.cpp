// `lbctl status` and `lbctl metrics` on files alone: output, complaints and exit statuses.
#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <ctime>

#include <nlohmann/json.hpp>

#include "lbctl/metrics_text.h"
#include "lbctl/run_command.h"
#include "lbctl/sample_dumps.h"

namespace lbctl {
namespace {

constexpr const char* kChanges =
    R"(wan_lb_interface_state_changes_total{interface="wan1",family="ipv4",vrf="default"})";

class StatusCommandTest : public testing::Test {
 protected:
  Outcome run(std::vector<std::string> words) {
    words.insert(words.end(), {"-o", directory_.path()});
    return run_command(words);
  }

  void make_all_stale() {
    const std::time_t old = std::time(nullptr) - 100;
    for (const char* name : {"wlb_ipv4_outbounds.bin", "wlb_rules.bin", "wlb_routes.bin"})
      directory_.date(name, old);
  }

  OutputDirectory directory_;
};

TEST_F(StatusCommandTest, ActiveFailedAndStale) {
  directory_.put_all();
  Outcome outcome = run({"status"});
  EXPECT_EQ(outcome.status, kExitOk);
  EXPECT_NE(outcome.output.find("wan1       default  active"), std::string::npos) << outcome.output;
  EXPECT_EQ(outcome.complaint, "");
  directory_.put("wlb_ipv4_outbounds.bin", outbound_record().byte(4311, 0).bytes());
  EXPECT_EQ(run({"status"}).status, kExitNo);
  EXPECT_EQ(run({"status", "-6"}).status, kExitOk) << "it has no IPv6 interface";
  make_all_stale();
  outcome = run({"status"});
  EXPECT_EQ(outcome.status, kExitUnreadable);
  EXPECT_NE(outcome.output.find("wan1       default  failed"), std::string::npos) << "shown still";
  EXPECT_NE(outcome.output.find("STALE"), std::string::npos);
  outcome = run({"status", "--json"});
  EXPECT_EQ(outcome.status, kExitUnreadable);
  EXPECT_EQ(nlohmann::json::parse(outcome.output)["stale"], true);
}

TEST_F(StatusCommandTest, TheOtherFamilysFileIsOfNoConcern) {
  directory_.put_all();
  directory_.put("wlb_ipv6_outbounds.bin", "not a dump");
  EXPECT_EQ(run({"status"}).status, kExitUnreadable);
  const Outcome outcome = run({"status", "-4"});
  EXPECT_EQ(outcome.status, kExitOk);
  EXPECT_EQ(outcome.complaint, "");
  EXPECT_EQ(run({"status", "-6"}).status, kExitUnreadable);
}

TEST_F(StatusCommandTest, FamiliesThatAreWanted) {
  directory_.put_all();
  directory_.put("wlb_ipv6_outbounds.bin",
                 outbound_record().text(0, "six6").byte(188 + 57, 1).bytes());
  const auto families = [this](std::vector<std::string> words) {
    words.insert(words.begin(), {"status", "--json"});
    std::string text;
    const auto document = nlohmann::json::parse(run(words).output);
    for (const auto& one : document["interfaces"]) text += std::to_string(one["family"].get<int>());
    return text + "/" + std::to_string(document["rules"].size());
  };
  EXPECT_EQ(families({}), "46/1");
  EXPECT_EQ(families({"-4"}), "4/1");
  EXPECT_EQ(families({"-6"}), "6/0");
  EXPECT_EQ(families({"-4", "-6"}), "46/1");
}

TEST_F(StatusCommandTest, UnreadableFilesAreNamedInOneLine) {
  Outcome outcome = run({"status"});
  EXPECT_EQ(outcome.status, kExitUnreadable);
  EXPECT_EQ(outcome.output, "");
  EXPECT_EQ(std::count(outcome.complaint.begin(), outcome.complaint.end(), '\n'), 1);
  directory_.put_all();
  directory_.put("wlb_rules.bin", rule_record().swapped(3337, 7).bytes());
  for (const char* command : {"status", "metrics"}) {
    outcome = run({command});
    EXPECT_EQ(outcome.status, kExitUnreadable);
    EXPECT_EQ(outcome.output, "");
    EXPECT_EQ(outcome.complaint, "lbctl: " + directory_.file("wlb_dump/wlb_rules.bin") +
                                     ": written on a host of the other byte order (record 1)\n");
  }
}

TEST_F(StatusCommandTest, TheLiveViewNeedsATerminal) {
  directory_.put_all();
  const Outcome outcome = run({"status", "--watch"});
  EXPECT_EQ(outcome.status, kExitUsage);
  EXPECT_EQ(outcome.output, "");
  EXPECT_NE(outcome.complaint.find("--watch needs a terminal"), std::string::npos);
  EXPECT_EQ(run({"status", "--watch", "--json"}).status, kExitUsage);
}

TEST_F(StatusCommandTest, MetricsOnStandardOutputHaveNoCounter) {
  directory_.put_all();
  const Outcome outcome = run({"metrics"});
  EXPECT_EQ(outcome.status, kExitOk);
  EXPECT_FALSE(read_samples(outcome.output).contains(kChanges));
  EXPECT_TRUE(read_samples(outcome.output).contains("wan_lb_last_write_timestamp_seconds"));
}

TEST_F(StatusCommandTest, TheCounterGoesOnFromTheFile) {
  directory_.put_all();
  const std::string file = directory_.file("wan_lb.prom");
  const auto changes = [&] {
    const Outcome outcome = run({"metrics", "--output", file});
    EXPECT_EQ(outcome.status, kExitOk) << outcome.complaint;
    EXPECT_EQ(outcome.output, "");
    return read_samples(directory_.read("wan_lb.prom")).at(kChanges);
  };
  EXPECT_EQ(changes(), 0);
  EXPECT_EQ(changes(), 0);
  directory_.put("wlb_ipv4_outbounds.bin", outbound_record().byte(4311, 0).number(4297, 0).bytes());
  EXPECT_EQ(changes(), 1);
  EXPECT_EQ(changes(), 1);
  directory_.put_all();
  EXPECT_EQ(changes(), 2);
}

TEST_F(StatusCommandTest, MetricsReplaceTheFileWhole) {
  directory_.put_all();
  const std::string file = directory_.write("wan_lb.prom", "old");
  const std::string other = directory_.file("link");
  ASSERT_EQ(link(file.c_str(), other.c_str()), 0);
  EXPECT_EQ(run({"metrics", "--output", file}).status, kExitOk);
  EXPECT_EQ(directory_.read("link"), "old") << "overwritten, not renamed over";
  EXPECT_FALSE(directory_.exists(".wan_lb.prom.new"));
}

TEST_F(StatusCommandTest, MetricsThatCannotBeMadeOrWrittenLeaveTheFileAlone) {
  const std::string file = directory_.write("wan_lb.prom", "old");
  EXPECT_EQ(run({"metrics", "--output", file}).status, kExitUnreadable) << "no dumps";
  EXPECT_EQ(directory_.read("wan_lb.prom"), "old");
  directory_.put_all();
  Outcome outcome = run({"metrics", "--output", directory_.file("none/x.prom")});
  EXPECT_EQ(outcome.status, kExitUnreadable);
  EXPECT_NE(outcome.complaint.find("none/x.prom: cannot be written"), std::string::npos)
      << outcome.complaint;
  outcome = run({"metrics", "--output", directory_.path()});
  EXPECT_EQ(outcome.status, kExitUnreadable);
  EXPECT_NE(outcome.complaint.find("not a regular file"), std::string::npos) << outcome.complaint;
}

}  // namespace
}  // namespace lbctl
