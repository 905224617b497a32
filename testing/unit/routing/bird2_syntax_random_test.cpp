// The routes of thousands of random configurations, read by the real BIRD 2: one line that it did
// not take would cost the router all of its routes.
#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <climits>
#include <cstdio>
#include <random>
#include <string>
#include <vector>

#include "routing/bird2_words.h"
#include "routing/static_routes.h"
#include "support/model_builder.h"
#include "support/temporary_directory.h"

namespace {

constexpr const char* kBird = "/usr/sbin/bird";
constexpr int kBatches = 12;
constexpr int kConfigurations = 250;  // in a batch

constexpr const char* kTables =
    "router id 192.0.2.1;\nipv4 table master4;\nipv6 table master6;\nprotocol device { }\n";

// What people and bad scripts write.
constexpr std::array kPieces = {"10.0.0.1",
                                "192.0.2.255",
                                "0.0.0.0",
                                "255.255.255.255",
                                "224.0.0.5",
                                "127.0.0.1",
                                "fe80::1",
                                "2001:db8::1",
                                "::",
                                "::1",
                                "ff02::1",
                                "::ffff:10.0.0.1",
                                "1::2:3:4",
                                "1.2.3",
                                "1.2.3.4.5",
                                "010.1.1.1",
                                "1:2:3",
                                "fe80::1%eth0",
                                "default",
                                "dhcp",
                                "",
                                "x",
                                "eth0",
                                "wan1",
                                "eth0.100",
                                "br-lan:1",
                                "route",
                                "via",
                                "ipv4",
                                "zero",
                                "a'b",
                                "a\"b",
                                "a b",
                                "a;b",
                                "}",
                                "{ }",
                                "/* ",
                                "//",
                                "\\",
                                "\xC3\xA9",
                                "!",
                                "a@if7",
                                "123",
                                "0x10",
                                "00",
                                "1e5",
                                "-1",
                                "--",
                                "0123456789012345",
                                "veryverylongname"};
constexpr std::array kLengths = {"",    "/0",  "/1",  "/8",   "/24",       "/32",  "/33",
                                 "/64", "/96", "/97", "/127", "/128",      "/129", "/",
                                 "/x",  "/08", "/-1", "/ 8",  "/255.0.0.0"};

class Random {
 public:
  int below(int end) { return std::uniform_int_distribution<int>(0, end - 1)(engine_); }

  template <class List>
  std::string one_of(const List& list) {
    return list[static_cast<size_t>(below(static_cast<int>(list.size())))];
  }

  std::string address(bool ipv6) {
    switch (below(3)) {
      case 0:
        return one_of(kPieces);
      case 1: {
        std::string text;
        const int words = ipv6 ? 8 : 4;
        for (int word = 0; word < words; ++word) {
          if (word > 0) text += ipv6 ? ":" : ".";
          std::array<char, 8> digits;
          snprintf(digits.data(), digits.size(), ipv6 ? "%x" : "%d",
                   below(ipv6 && below(2) == 0 ? 0x10000 : 256));
          text += below(4) == 0 ? "0" : digits.data();
        }
        return text;
      }
      default:
        return ipv6 ? "fe80::" + std::to_string(below(10))
                    : "192.168.1." + std::to_string(below(255));
    }
  }

  std::string device() {
    if (below(2) == 0) return "wan" + std::to_string(below(100));
    if (below(2) == 0) return one_of(kPieces);
    std::string name;
    for (int length = below(18); length > 0; --length) name += static_cast<char>(33 + below(94));
    return name;
  }

  int32_t number() {
    constexpr std::array<int32_t, 7> kNumbers = {1, 2, 100, 255, 256, 257, INT_MAX};
    return below(2) == 0 ? kNumbers.at(static_cast<size_t>(below(7))) : below(INT_MAX);
  }

 private:
  std::mt19937 engine_{20'02'12};
};

// The routing daemon's texts of both families for one configuration.
std::string random_routes(Random& random, size_t& routes) {
  LBConfig config;
  config.options->bird2_routes = true;
  for (const bool ipv6 : {false, true}) {
    LBRule& rule = config.rules[ipv6 ? "1_ipv6" : "1_ipv4"];
    if (random.below(4) == 0) rule.failover = 1;
    for (int members = random.below(4); members > 0; --members) {
      const std::string name = "if" + std::to_string(members);
      add_active_interface(config, name, random.address(ipv6), ipv6).origin = random.device();
      rule.members[name] = {.ipv6 = ipv6, .weight = random.number()};
    }
    for (int targets = random.below(4); targets > 0; --targets) {
      const std::string prefix = random.address(ipv6) + random.one_of(kLengths);
      rule.targets[prefix].metric = random.below(3) == 0 ? -random.number() : random.number();
    }
  }
  std::string text;
  for (const bool ipv6 : {false, true}) {
    const std::string body = build_static_routes(config, ipv6, kDefaultNamespace).body;
    routes += static_cast<size_t>(std::count(body.begin(), body.end(), '\n'));
    text += protocol_static_text(body, ipv6);
  }
  return text;
}

class Bird2SyntaxRandomTest : public TemporaryDirectoryTest {
 protected:
  void SetUp() override {
    if (access(kBird, X_OK) != 0) GTEST_SKIP() << "bird2 is not installed";
  }

  // What BIRD has to say about the text; empty when it takes it.
  std::string complaint(const std::string& text) {
    const std::string path = directory_.write("bird.conf", kTables + text);
    FILE* const output = popen((std::string(kBird) + " -p -c " + path + " 2>&1").c_str(), "r");
    if (output == nullptr) return "bird could not be started";
    std::string words(4096, '\0');
    words.resize(fread(words.data(), 1, words.size(), output));
    return pclose(output) == 0 ? "" : "bird says: " + words;
  }
};

}  // namespace

TEST_F(Bird2SyntaxRandomTest, BirdTakesEveryText) {
  Random random;
  size_t routes = 0;
  for (int batch = 0; batch < kBatches; ++batch) {
    std::string all;
    std::vector<std::string> texts;
    for (int i = 0; i < kConfigurations; ++i) texts.push_back(random_routes(random, routes));
    for (const std::string& text : texts) all += text;
    if (complaint(all).empty()) continue;
    for (const std::string& text : texts) ASSERT_EQ(complaint(text), "") << text;
  }
  // Otherwise nothing was shown.
  EXPECT_GT(routes, 1000U);
}

// What the check above relies on.
TEST_F(Bird2SyntaxRandomTest, BirdRefusesItsOwnWordsAsDevices) {
  const auto route_by = [](const std::string& device) {
    return protocol_static_text("route 0.0.0.0/0 via 192.0.2.1%'" + device + "' onlink weight 1;\n",
                                false);
  };
  EXPECT_EQ(complaint(route_by("eth0")), "");
  for (const char* word : {"route", "zero", "AF_IPV4", "primary"}) {
    EXPECT_TRUE(is_bird2_word(word));
    EXPECT_NE(complaint(route_by(word)), "") << word;
  }
  EXPECT_FALSE(is_bird2_word("eth0"));
  EXPECT_FALSE(is_bird2_word(""));
}
