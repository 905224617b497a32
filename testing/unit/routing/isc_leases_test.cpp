// The router in the lease files of stock clients.
#include "routing/isc_leases.h"

#include <gtest/gtest.h>

namespace {

constexpr int64_t kNow = 1'795'568'400;  // Wed 2026/11/25 01:00:00 UTC

// What dhclient writes, with these statements at the end.
std::string lease(const std::string& router, const std::string& more) {
  return "lease {\n"
         "  interface \"eth0\";\n"
         "  fixed-address 192.0.2.77;\n"
         "  option subnet-mask 255.255.255.0;\n"
         "  option routers " +
         router +
         ";\n"
         "  option dhcp-lease-time 600;\n"
         "  option dhcp-client-identifier 1:2:0:0:0:0:2;\n"
         "  renew 3 2026/11/25 00:02:03;\n" +
         more + "}\n";
}

std::string ends(const std::string& when) { return "  expire " + when + ";\n"; }

std::string router_of(const std::string& text, const std::string& device = "eth0") {
  return isc_lease_router(text, device, kNow).value_or("none");
}

std::string router_of(const char* text) { return router_of(std::string(text)); }

std::string script(const std::string& text) { return script_router(text).value_or("none"); }

}  // namespace

TEST(IscLeasesTest, RouterOfTheLease) {
  EXPECT_EQ(router_of("default-duid \"\\000\\001\\000\\001\";\n" +
                      lease("192.0.2.1", ends("3 2026/11/25 01:02:03"))),
            "192.0.2.1");
}

TEST(IscLeasesTest, FirstRouterOfTheList) {
  for (const char* list :
       {"192.0.2.1,192.0.2.2", "192.0.2.1, 192.0.2.2", "192.0.2.1 ,\n192.0.2.2"}) {
    EXPECT_EQ(router_of(lease(list, "")), "192.0.2.1") << list;
  }
}

TEST(IscLeasesTest, LastLeaseThatHasNotExpired) {
  const std::string first = lease("192.0.2.1", ends("3 2026/11/25 02:00:00"));
  const std::string second = lease("192.0.2.2", ends("3 2026/11/25 01:30:00"));
  const std::string expired = lease("192.0.2.3", ends("3 2026/11/25 00:59:59"));
  EXPECT_EQ(router_of(first + second), "192.0.2.2");
  EXPECT_EQ(router_of(second + first), "192.0.2.1");
  EXPECT_EQ(router_of(first + expired), "192.0.2.1");
  EXPECT_EQ(router_of(expired), "none");
  EXPECT_EQ(router_of(""), "none");
}

TEST(IscLeasesTest, EndsInTheSecondThatItNames) {
  EXPECT_EQ(router_of(lease("192.0.2.1", ends("3 2026/11/25 01:00:00"))), "none");
  EXPECT_EQ(router_of(lease("192.0.2.1", ends("3 2026/11/25 01:00:01"))), "192.0.2.1");
}

TEST(IscLeasesTest, FormsOfTheEnd) {
  for (const char* end :
       {"never", "epoch 1795568401", "epoch 1795568401; # Wed Nov 25 01:00:01 2026\n ",
        "0 9999/12/31 23:59:59", "6 2026/11/25 01:00:01"}) {
    EXPECT_EQ(router_of(lease("192.0.2.1", ends(end))), "192.0.2.1") << end;
  }
  EXPECT_EQ(router_of(lease("192.0.2.1", ends("epoch 1795568400"))), "none");
  EXPECT_EQ(router_of(lease("192.0.2.1", "")), "192.0.2.1") << "no end";
}

TEST(IscLeasesTest, EndThatCannotBeReadIsNone) {
  for (const char* end : {"",
                          "3",
                          "soon",
                          "epoch",
                          "epoch later",
                          "epoch -1",
                          "epoch 99999999999999999999",
                          "never ever",
                          "3 2027/11/25",
                          "3 2027-11-25 01:02:03",
                          "3 2027/13/01 01:02:03",
                          "3 2027/00/01 01:02:03",
                          "3 2027/01/32 01:02:03",
                          "3 2027/01/00 01:02:03",
                          "3 2027/01/01 24:02:03",
                          "3 2027/01/01 01:60:03",
                          "3 2027/01/01 01:02:61",
                          "3 2027/01/01 01:02",
                          "3 2027/01/01 01:02:",
                          "3 2027/01/01/01 01:02:03",
                          "3 1969/01/01 01:02:03",
                          "3 20270/01/01 01:02:03",
                          "x 2027/01/01 01:02:03",
                          "3 2027/01/01 01:02:03 -3600",
                          "3 2027/ 01/01 01:02:03"}) {
    EXPECT_EQ(router_of(lease("192.0.2.1", ends(end))), "none") << end;
  }
  EXPECT_EQ(router_of(lease("192.0.2.1", ends("soon") + ends("never"))), "none");
}

TEST(IscLeasesTest, LeasesOfOtherInterfacesDoNotCount) {
  const std::string both =
      lease("192.0.2.1", "") + "lease { interface \"eth1\"; option routers 192.0.2.2; }";
  EXPECT_EQ(router_of(both), "192.0.2.1");
  EXPECT_EQ(router_of(both, "eth1"), "192.0.2.2");
  EXPECT_EQ(router_of(both, "eth"), "none");
  EXPECT_EQ(router_of("lease { option routers 192.0.2.3; }", "eth7"), "192.0.2.3");
  EXPECT_EQ(router_of("lease { interface; option routers 192.0.2.3; }"), "none");
}

TEST(IscLeasesTest, EscapesInTheInterfaceName) {
  const auto named = [](const std::string& written) {
    return "lease { interface \"" + written + "\"; option routers 192.0.2.1; }";
  };
  EXPECT_EQ(router_of(named("a\\\"b"), "a\"b"), "192.0.2.1");
  EXPECT_EQ(router_of(named("a\\\\"), "a\\"), "192.0.2.1");
  EXPECT_EQ(router_of(named("\\145th0")), "192.0.2.1");
  EXPECT_EQ(router_of(named("\\x65th0")), "192.0.2.1");
  EXPECT_EQ(router_of(named("eth\\x"), "ethx"), "192.0.2.1");
  EXPECT_EQ(router_of(named("e\\th0"), "eth0"), "192.0.2.1");
}

TEST(IscLeasesTest, ForWhatIsInStringsAndCommentsNoBracketCounts) {
  EXPECT_EQ(
      router_of("# lease {\n" + lease("192.0.2.1",
                                      "  filename \"} lease { option routers 192.0.2.9; \\\"}\";\n"
                                      "  # } option routers 192.0.2.8;\n")),
      "192.0.2.1");
}

TEST(IscLeasesTest, OtherBlocksArePassedOver) {
  EXPECT_EQ(router_of("lease6 { interface \"eth0\"; ia-na 1 { iaaddr 2001:db8::1 { starts 1; } } "
                      "option routers 192.0.2.8; }\n" +
                      lease("192.0.2.1", "  x { option routers 192.0.2.9; } y;\n") +
                      "alias { option routers 192.0.2.7; }"),
            "192.0.2.1");
  EXPECT_EQ(router_of("fixed lease { option routers 192.0.2.1; }"), "none");
  EXPECT_EQ(router_of("lease x { option routers 192.0.2.1; }"), "none");
  EXPECT_EQ(router_of("\"lease\" { option routers 192.0.2.1; }"), "none");
}

TEST(IscLeasesTest, BlockThatIsBeingWrittenDoesNotCount) {
  const std::string whole = lease("192.0.2.1", "");
  const std::string next = lease("192.0.2.2", ends("never"));
  for (size_t size = 0; size + 2 < next.size(); ++size) {  // without "}" and newline
    EXPECT_EQ(router_of(whole + next.substr(0, size)), "192.0.2.1") << size;
  }
  EXPECT_EQ(router_of(whole + next), "192.0.2.2");
}

TEST(IscLeasesTest, NoAddressIsNoRouter) {
  for (const char* value : {"", "router.example", "192.0.2", "192.0.2.1.1", "192.0.2.256",
                            "fe80::1", ",", ",192.0.2.1", "192.0.2.1x", "1:2"}) {
    EXPECT_EQ(router_of(lease(value, "")), "none") << value;
  }
  EXPECT_EQ(router_of("lease { option router 192.0.2.1; }"), "none");
  EXPECT_EQ(router_of("lease { routers 192.0.2.1; }"), "none");
}

// The newest lease is what counts, even if it tells no router: an older one's would be a guess.
TEST(IscLeasesTest, NewestLeaseWithoutARouter) {
  EXPECT_EQ(router_of(lease("192.0.2.1", "") + "lease { fixed-address 192.0.2.77; }"), "none");
}

TEST(IscLeasesTest, StraySignsDoNoHarm) {
  EXPECT_EQ(router_of("}} ; { } ; " + lease("192.0.2.1", ";;")), "192.0.2.1");
  EXPECT_EQ(router_of("lease { option routers 192.0.2.1; x \"\\"), "none");
  EXPECT_EQ(router_of("lease { option routers 192.0.2.1; x \"\\\"}"), "none");
  EXPECT_EQ(router_of(std::string("\0lease { option routers 192.0.2.1; }", 36)), "none");
}

TEST(IscLeasesTest, LongStatementsDoNoHarm) {
  std::string statement = "  option x";
  for (int i = 0; i < 5000; ++i) statement += " 192.0.2.9,";
  EXPECT_EQ(router_of(lease("192.0.2.1", statement + ";\n")), "192.0.2.1");
}

TEST(ScriptRouterTest, FirstAddressInAnyQuotes) {
  for (const char* line :
       {"new_routers='fe80::1'\n", "new_routers=\"fe80::1\"\n", "new_routers=fe80::1",
        "new_routers='fe80::1 fe80::2'\n", "new_routers=fe80::1 fe80::2\n",
        "new_routers='fe80::1' \t\r\n", "reason=BOUND6\nnew_routers='fe80::1'\nx=y\n"}) {
    EXPECT_EQ(script(line), "fe80::1") << line;
  }
}

TEST(ScriptRouterTest, FirstLineWithAnAddress) {
  EXPECT_EQ(script("new_routers=''\nnew_routers='fe80::1'\nnew_routers='fe80::2'\n"), "fe80::1");
}

TEST(ScriptRouterTest, NoAddressIsNoRouter) {
  for (const char* line :
       {"", "new_routers=", "new_routers=''", "new_routers='", "new_routers='fe80::1",
        "new_routers='fe80::1\"", "new_routers=fe80::1'", "new_routers='192.0.2.1'",
        "new_routers=' fe80::1'", "new_routers='fe80::1%eth0'", "old_routers='fe80::1'",
        " new_routers='fe80::1'", "new_routers ='fe80::1'"}) {
    EXPECT_EQ(script(line), "none") << line;
  }
}

TEST(ScriptRouterTest, Lease6BlocksArePassedOver) {
  const std::string block =
      "default-duid \"\\000\";\n"
      "lease6 {\n"
      "  interface \"eth0\";\n"
      "  ia-na 11:22 {\n    iaaddr 2001:db8::5 {\n      max-life 600;\n    }\n  }\n"
      "new_routers='fe80::8'\n"
      "  option dhcp6.name-servers 2001:db8::53; # }\n"
      "  x \"}\";\n"
      "new_routers='fe80::9'\n"
      "}\n";
  EXPECT_EQ(script(block), "none");
  EXPECT_EQ(script(block + "new_routers='fe80::1'\n"), "fe80::1");
  EXPECT_EQ(script("  " + block.substr(block.find("lease6")) + "new_routers='fe80::1'\n"),
            "fe80::1");
  EXPECT_EQ(script("lease6 {\nnew_routers='fe80::1'\n"), "none") << "a block that does not end";
  EXPECT_EQ(script("lease6\nnew_routers='fe80::1'\n"), "fe80::1") << "no block";
  EXPECT_EQ(script("lease66 {\nnew_routers='fe80::1'\n}"), "fe80::1") << "another word";
}
