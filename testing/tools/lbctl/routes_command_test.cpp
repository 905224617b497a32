// `lbctl routes` as a script uses it: what is printed where, and the exit statuses.
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <filesystem>
#include <string>
#include <vector>

#include "lbctl/routes_bird.h"
#include "lbctl/run_command.h"
#include "support/redirected_places.h"

namespace lbctl {
namespace {

constexpr const char* kTwoUplinks = R"(
health {
  interface wan1 {
    nexthop 192.0.2.1
  }
  interface wan2 {
    nexthop dhcp
  }
  interface6 wan1 {
    nexthop fe80::1
  }
  interface wan9 {
    namespace red
    nexthop 198.51.100.1
  }
}
rule 1_ipv4 {
  interface wan1 {
    weight 1
  }
  interface wan2 {
    weight 2
  }
  target {
    address 0.0.0.0/0
  }
}
rule 2_ipv4 {
  failover
  interface wan1 {
    weight 5
  }
  interface wan2 {
    weight 1
  }
  target {
    address 10.0.0.0/8
    metric 7
  }
}
rule 1_ipv6 {
  interface6 wan1 {
    weight 1
  }
  target {
    address ::/0
  }
}
)";

std::string block(const std::string& line, bool ipv6 = false) {
  return std::string("protocol static {\n") +
         (ipv6 ? "ipv6 {table master6;};\n" : "ipv4 {table master4;};\n") + "check link 1;\n" +
         line + "\n};\n";
}

class RoutesCommand : public RedirectedPlacesTest {
 protected:
  RoutesCommand() { use(kTwoUplinks); }

  void use(const std::string& text) { directory_.write("lb.conf", text); }

  Outcome run(std::vector<std::string> options) const {
    options.insert(options.begin(), {"routes", path_});
    return run_command(options);
  }

  // A stand-in for bird: leaves its configuration in a file, says something and ends.
  std::string fake_bird(const std::string& script) const {
    directory_.write("bin/bird", "#!/bin/sh\n" + script);
    chmod(directory_.file("bin/bird").c_str(), 0755);
    return directory_.file("bin");
  }

  const std::string path_ = directory_.file("lb.conf");
  const std::string file_ = route_file_path(kDefaultNamespace, false);
  const std::string file6_ = route_file_path(kDefaultNamespace, true);
  const std::string both_ = block("route 0.0.0.0/0 via 192.0.2.1 weight 1 via 192.0.2.7 weight 2;");
  const std::string second_ = block("route 10.0.0.0/8 via 192.0.2.1 weight 5 metric 7;");
  const std::string ipv6_ = block("route ::/0 via fe80::1 weight 1;", true);
};

TEST_F(RoutesCommand, OneFamilyIsBare) {
  const Outcome outcome = run({"-4", "--nexthop", "wan2=192.0.2.7"});
  EXPECT_EQ(outcome.output, both_ + second_);
  EXPECT_EQ(outcome.complaint, "");
  EXPECT_EQ(outcome.status, kExitOk);
}

TEST_F(RoutesCommand, BothFamiliesStandUnderTheirFiles) {
  const Outcome outcome = run({"--nexthop", "wan2=192.0.2.7"});
  EXPECT_EQ(outcome.output,
            "==> " + file_ + " <==\n" + both_ + second_ + "==> " + file6_ + " <==\n" + ipv6_);
  EXPECT_EQ(outcome.complaint, "");
}

TEST_F(RoutesCommand, NextHopsComeFromTheLeasesOfThisMachine) {
  directory_.write(lease_file_path("wan2", false), "  option routers 192.0.2.7;\n");
  EXPECT_EQ(run({"-4"}).output, both_ + second_);
}

TEST_F(RoutesCommand, AMissingLeaseIsSaid) {
  const Outcome outcome = run({"-4"});
  EXPECT_EQ(outcome.output, block("route 0.0.0.0/0 via 192.0.2.1 weight 1;") + second_);
  EXPECT_EQ(outcome.complaint, "lbctl: no next hop of wan2 is known from the lease file " +
                                   lease_file_path("wan2", false) + ": it carries nothing\n");
  EXPECT_EQ(outcome.status, kExitOk);
}

TEST_F(RoutesCommand, DownAndUpChooseTheState) {
  const std::vector<std::string> given{"-4", "--nexthop", "wan2=192.0.2.7"};
  const auto with = [&](std::vector<std::string> more) {
    more.insert(more.begin(), given.begin(), given.end());
    return run(more).output;
  };
  const std::string wan2_only = block("route 0.0.0.0/0 via 192.0.2.7 weight 2;") +
                                block("route 10.0.0.0/8 via 192.0.2.7 weight 1 metric 7;");
  EXPECT_EQ(with({"--down", "wan1"}), wan2_only);
  EXPECT_EQ(with({"--up", "wan2"}), wan2_only);
  EXPECT_EQ(with({"--down", "wan1,wan2"}), "");
  EXPECT_EQ(with({"--down", "wan1", "--down", "wan2"}), "");
  EXPECT_EQ(with({"--up", "wan1,wan2"}), both_ + second_);
}

TEST_F(RoutesCommand, ANameWithoutAPartIsSaid) {
  EXPECT_EQ(run({"-6", "--down", "wan9/6"}).status, kExitUsage);
  EXPECT_EQ(run({"-4", "--nexthop", "wan2=192.0.2.7", "--down", "wan9"}).complaint,
            "lbctl: wan9 is in VRF red: its state changes nothing in VRF default\n");
  EXPECT_EQ(run({"-4", "--nexthop", "wan2=192.0.2.7", "--down", "wan1/6"}).complaint,
            "lbctl: wan1/6 is of the other family: its state changes nothing here\n");
}

TEST_F(RoutesCommand, UnknownNamesAreUsageErrors) {
  const Outcome interface = run({"--down", "wan7"});
  EXPECT_EQ(interface.status, kExitUsage);
  EXPECT_EQ(interface.output, "");
  EXPECT_EQ(interface.complaint, "lbctl: the configuration has no IPv4 interface 'wan7'\n");
  const Outcome vrf = run({"--vrf", "blue"});
  EXPECT_EQ(vrf.status, kExitUsage);
  EXPECT_EQ(vrf.complaint, "lbctl: " + path_ + ": no interface and no rule is in a VRF 'blue'\n");
  EXPECT_EQ(run({"--down", "wan1", "--up", "wan2"}).status, kExitUsage);
  EXPECT_EQ(run({"-4", "-6"}).status, kExitUsage);
}

TEST_F(RoutesCommand, AFamilyThatIsNotServedHasNoBytes) {
  const Outcome outcome = run({"-4", "--vrf", "red"});
  EXPECT_EQ(outcome.output, "");
  EXPECT_EQ(outcome.complaint, "lbctl: " + route_file_path("red", false) +
                                   " is not written: VRF red has no IPv4 rule, so the daemon does "
                                   "not serve the family there\n");
  EXPECT_EQ(outcome.status, kExitOk);
}

TEST_F(RoutesCommand, AConfigurationThatCannotBeReadIsNamed) {
  std::filesystem::remove(path_);
  const Outcome outcome = run({});
  EXPECT_EQ(outcome.status, kExitUnreadable);
  EXPECT_EQ(outcome.complaint, "lbctl: " + path_ + ": No such file or directory\n");
}

TEST_F(RoutesCommand, WhatTheReaderSaysIsSaid) {
  use("health {\n  interface wan1 {\n    hold-down x\n  }\n}\n}\n");
  EXPECT_EQ(run({"-4"}).complaint,
            "lbctl: " + path_ +
                ": illegal hold-down in line 3 of the configuration file: x\n"
                "lbctl: " +
                path_ + ": Malformed configuration file: brackets\nlbctl: " + path_ +
                ": not read to its end; the daemon uses what was read until there, and so does "
                "this\n"
                "lbctl: " +
                file_ +
                " is not written: VRF default has no IPv4 rule, so the daemon does not serve the "
                "family there\n");
}

TEST_F(RoutesCommand, WhatTheSyntaxLeavesOutIsSaid) {
  use(std::string("options {\n  routing-daemon bird2\n}\n") + kTwoUplinks +
      "rule 3_ipv4 {\n  interface wan1 {\n    weight 1\n  }\n  target {\n    address nowhere\n"
      "  }\n}\n");
  const Outcome outcome = run({"-4", "--nexthop", "wan2=127.0.0.1"});
  EXPECT_EQ(
      outcome.output,
      block("route 0.0.0.0/0 via 192.0.2.1%'wan1' onlink weight 1;") +
          block("route 10.0.0.0/8 via 192.0.2.1%'wan1' onlink weight 5 { krt_metric = 7; };"));
  EXPECT_EQ(outcome.complaint,
            "lbctl: rule 1_ipv4: next hop '127.0.0.1' of interface wan2 (wan2) left out: not the "
            "address of a host\n"
            "lbctl: rule 2_ipv4: next hop '127.0.0.1' of interface wan2 (wan2) left out: not the "
            "address of a host\n"
            "lbctl: rule 3_ipv4: destination 'nowhere' left out: no IPv4 address or prefix\n");
}

TEST_F(RoutesCommand, KeptRoutesAreShownAndSaid) {
  use(std::string("options {\n  keep-last-routes\n}\n") + kTwoUplinks);
  const Outcome outcome = run({"-6", "--down", "wan1/6"});
  EXPECT_EQ(outcome.output, ipv6_);
  EXPECT_EQ(outcome.complaint, "lbctl: rule 1_ipv6: no usable interface, last IPv6 routes kept\n");
}

TEST_F(RoutesCommand, EachShowsWhatEverySingleFailureChanges) {
  EXPECT_EQ(run({"--each", "--nexthop", "wan2=192.0.2.7"}).output,
            "DOWN    RULE    DESTINATION  ROUTE\n"
            "(none)  1_ipv4  0.0.0.0/0    via 192.0.2.1 weight 1 via 192.0.2.7 weight 2\n"
            "        2_ipv4  10.0.0.0/8   via 192.0.2.1 weight 5 metric 7\n"
            "        1_ipv6  ::/0         via fe80::1 weight 1\n"
            "wan1    1_ipv4  0.0.0.0/0    via 192.0.2.7 weight 2\n"
            "        2_ipv4  10.0.0.0/8   via 192.0.2.7 weight 1 metric 7\n"
            "wan2    1_ipv4  0.0.0.0/0    via 192.0.2.1 weight 1\n"
            "wan1/6  1_ipv6  ::/0         no route\n");
}

TEST_F(RoutesCommand, EachSaysWhereNothingChanges) {
  EXPECT_EQ(run({"-4", "--each", "--nexthop", "wan2=-"}).output,
            "DOWN    RULE    DESTINATION  ROUTE\n"
            "(none)  1_ipv4  0.0.0.0/0    via 192.0.2.1 weight 1\n"
            "        2_ipv4  10.0.0.0/8   via 192.0.2.1 weight 5 metric 7\n"
            "wan1    1_ipv4  0.0.0.0/0    no route\n"
            "        2_ipv4  10.0.0.0/8   no route\n"
            "wan2    -       -            no change\n");
}

TEST_F(RoutesCommand, DiffTellsWhetherTheFileInForceIsAnother) {
  directory_.write(file6_, ipv6_);
  EXPECT_EQ(run({"-6", "--diff"}).output, "");
  EXPECT_EQ(run({"-6", "--diff"}).status, kExitOk);

  const Outcome gone = run({"-6", "--diff", "--down", "wan1"});
  EXPECT_EQ(gone.status, kExitNo);
  EXPECT_EQ(gone.output, "--- " + file6_ + "\n+++ routes of " + path_ +
                             "\n@@ -1,5 +0,0 @@\n-protocol static {\n-ipv6 {table master6;};\n"
                             "-check link 1;\n-route ::/0 via fe80::1 weight 1;\n-};\n");

  const Outcome absent = run({"-4", "--diff", "--nexthop", "wan2=-"});
  EXPECT_EQ(absent.status, kExitNo);
  EXPECT_EQ(absent.complaint, "lbctl: " + file_ + ": not there; taken for empty\n");
}

TEST_F(RoutesCommand, DiffNeedsAFileThatCanBeRead) {
  std::filesystem::create_directories(file6_);
  const Outcome outcome = run({"-6", "--diff"});
  EXPECT_EQ(outcome.status, kExitUnreadable);
  EXPECT_EQ(outcome.complaint, "lbctl: " + file6_ + ": not a regular file\n");
}

TEST_F(RoutesCommand, BirdGetsTheRoutesInAWholeConfiguration) {
  const std::string directory = fake_bird("cat \"$3\" > " + directory_.file("seen") + "\n");
  const BirdVerdict verdict = ask_bird(ipv6_, "routes.conf", directory);
  EXPECT_TRUE(verdict.is_installed);
  EXPECT_TRUE(verdict.accepts);
  EXPECT_EQ(directory_.read("seen"),
            "router id 192.0.2.1;\nipv4 table master4;\nipv6 table master6;\n"
            "protocol device { }\n" +
                ipv6_);
}

TEST_F(RoutesCommand, BirdsWordsAreInTermsOfTheFile) {
  const std::string directory =
      fake_bird("echo \"bird: $3:8:22 syntax error, unexpected WEIGHT\" >&2\nexit 1\n");
  const BirdVerdict verdict = ask_bird(ipv6_, "routes.conf", directory);
  EXPECT_FALSE(verdict.accepts);
  EXPECT_EQ(verdict.words, "routes.conf:4:22: syntax error, unexpected WEIGHT");
}

TEST_F(RoutesCommand, BirdMayBeMissing) {
  EXPECT_FALSE(ask_bird(ipv6_, "routes.conf", directory_.file("nowhere")).is_installed);
}

}  // namespace
}  // namespace lbctl
