// Names and next hops on the command line: which interface they mean, and what is refused.
#include "lbctl/assumed_state.h"

#include <gtest/gtest.h>

#include <string>

#include "lbctl/command.h"
#include "support/model_builder.h"

namespace lbctl {
namespace {

class AssumedState : public testing::Test {
 protected:
  AssumedState() {
    add_interface_via(config_, "wan1", "192.0.2.1");
    add_interface_via(config_, "wan1", "dhcp", true);
    add_interface_via(config_, "wan2", "kernel");
    add_interface_via(config_, "wan3", "tunnel", true);
  }

  // The complaint of a refused call, which is one about usage.
  template <class Call>
  static std::string refusal(Call call) {
    try {
      call();
    } catch (const Failure& failure) {
      EXPECT_EQ(failure.exit_status(), kExitUsage);
      return failure.what();
    }
    return "(accepted)";
  }
  std::string name_refusal(const std::string& label) {
    return refusal([&] { find_interface_name(config_, label, false); });
  }
  std::string nexthop_refusal(const std::string& text) {
    return refusal([&] { parse_assumed_nexthop(config_, text, false); });
  }

  LBConfig config_;
};

TEST_F(AssumedState, LabelTellsTheFamily) {
  EXPECT_FALSE(find_interface_name(config_, "wan1", false).ipv6);
  const InterfaceName ipv6 = find_interface_name(config_, "wan1/6", false);
  EXPECT_TRUE(ipv6.ipv6);
  EXPECT_EQ(ipv6.name, "wan1");
}

TEST_F(AssumedState, WhereOnlyIpv6IsAskedAboutAPlainNameIsTheIpv6One) {
  EXPECT_TRUE(find_interface_name(config_, "wan1", true).ipv6);
  EXPECT_TRUE(find_interface_name(config_, "wan1/6", true).ipv6);
}

TEST_F(AssumedState, UnknownNameIsRefused) {
  EXPECT_EQ(name_refusal("wan9"), "the configuration has no IPv4 interface 'wan9'");
  EXPECT_EQ(name_refusal("wan3"),
            "the configuration has no IPv4 interface 'wan3'; the IPv6 one is written wan3/6");
  EXPECT_EQ(name_refusal("wan2/6"),
            "the configuration has no IPv6 interface 'wan2'; the IPv4 one is written wan2");
  EXPECT_EQ(name_refusal(""), "the configuration has no IPv4 interface ''");
}

TEST_F(AssumedState, NexthopNeedsNameAndAddressOfTheFamily) {
  EXPECT_EQ(parse_assumed_nexthop(config_, "wan2=198.51.100.1", false).address, "198.51.100.1");
  EXPECT_EQ(parse_assumed_nexthop(config_, "wan1/6=fe80::1", false).address, "fe80::1");
  EXPECT_EQ(parse_assumed_nexthop(config_, "wan2=-", false).address, "");
  EXPECT_EQ(nexthop_refusal("wan2"), "--nexthop wan2: NAME=ADDRESS is needed");
  EXPECT_EQ(nexthop_refusal("wan2=fe80::1"),
            "--nexthop wan2=fe80::1: 'fe80::1' is no IPv4 address");
  EXPECT_EQ(nexthop_refusal("wan1/6=192.0.2.1"),
            "--nexthop wan1/6=192.0.2.1: '192.0.2.1' is no IPv6 address");
  EXPECT_EQ(nexthop_refusal("wan1=192.0.2.9"),
            "--nexthop wan1=192.0.2.9: the next hop of wan1 is configured ('192.0.2.1'); only one "
            "of \"dhcp\", \"tunnel\" or \"kernel\" is found at run time");
}

TEST_F(AssumedState, StatesGoToTheModel) {
  assume_all(config_, true);
  assume(config_, {"wan1", true}, false);
  EXPECT_TRUE(config_.interfaces.at("wan1").snapshot().active);
  EXPECT_FALSE(config_.interfaces6.at("wan1").snapshot().active);
  assume_nexthop(config_, {{"wan3", true}, "fe80::7"});
  EXPECT_EQ(config_.interfaces6.at("wan3").gateway(), "fe80::7");
}

}  // namespace
}  // namespace lbctl
