// What the check finds clean, the daemon's reader takes in silence and BIRD 2 takes whole: random
// configurations of good and bad values, with all interfaces active.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdlib>
#include <random>

#include "lbctl/check_file.h"
#include "lbctl/configuration.h"
#include "routing/static_routes.h"
#include "support/temporary_directory.h"

namespace lbctl {
namespace {

constexpr int kTries = 3000;
constexpr int kLeastClean = 100;

class Writer {
 public:
  explicit Writer(unsigned int seed) : random_(seed) {}

  std::string configuration() {
    const bool ipv6 = chance(2);
    bird2_ = chance(2);
    std::string text = bird2_ ? "options {\nrouting-daemon bird2\n}\n" : "";
    text += "health {\n";
    const int count = 1 + number(2);
    for (int i = 1; i <= count; ++i) text += interface(i, ipv6);
    text += "}\n";
    text += rule(1, count, ipv6);
    return text;
  }

 private:
  int number(int below) { return static_cast<int>(random_() % static_cast<unsigned int>(below)); }
  bool chance(int of) { return number(of) == 0; }
  std::string one_of(const std::vector<std::string>& values) {
    return values[static_cast<size_t>(number(static_cast<int>(values.size())))];
  }

  std::string interface(int index, bool ipv6) {
    const std::string name = "wan" + std::to_string(index);
    std::string text = (ipv6 ? "interface6 " : "interface ") + name + " {\n";
    if (chance(4)) text += "origin " + one_of({"eth0", "primary", "br-lan.2", "a'b"}) + "\n";
    const std::string number = std::to_string(index);
    if (!chance(20)) {
      text += "nexthop " +
              (ipv6 ? one_of({"2001:db8::" + number, "kernel", "dhcp", "fe80::1", "2001:DB8::1",
                              "::ffff:192.0.2.1", "2001:db8:0:1::" + number})
                    : one_of({"192.0.2." + number, "kernel", "dhcp", "192.0.2.1", "0.0.0.0",
                              "192.0.2", "203.0.113." + number})) +
              "\n";
    }
    return text + "}\n";
  }

  std::string rule(int index, int members, bool ipv6) {
    std::string text = "rule " + std::to_string(index) + (ipv6 ? "_ipv6" : "_ipv4") + " {\n";
    if (chance(3)) text += "failover\n";
    for (int i = 1; i <= members; ++i) {
      text += (ipv6 != chance(30) ? "interface6 wan" : "interface wan") + std::to_string(i) +
              " {\nweight " + one_of({"1", "2", "255", "256", "257", "0", "4x"}) + "\n}\n";
    }
    const int destinations = 1 + number(2);
    for (int i = 0; i < destinations; ++i) {
      text +=
          "target {\naddress " +
          (ipv6
               ? one_of({"::/0", "2001:db8::/32", "2001:DB8:1::/48", "2001:db8::1",
                         "2001:db8::1/64", "default", "2001:db8::1.2.3.4/128", "::/129",
                         "64:ff9b::/96", "1:2:3:4:5:6:7::/112"})
               : one_of({"0.0.0.0/0", "10.0.0.0/8", "198.51.100.7/32", "198.51.100.7", "10.0.0.1/8",
                         "default", "10.0.0.0/08", "10.0.0.0/255.0.0.0", "224.0.0.0/4", "::/0"})) +
          "\n";
      if (chance(6)) text += "metric " + one_of({"0", "7", "4294967294", "4294967295"}) + "\n";
      text += "}\n";
    }
    return text + "}\n";
  }

  std::mt19937 random_;
  bool bird2_ = false;
};

void make_active(LBConfig& model) {
  for (const bool ipv6 : {false, true}) {
    for (auto& [name, interface] : model.interfaces_of(ipv6)) {
      const MutexLock lock(interface.mutex);
      interface.state.active = true;
      if (interface.discovers_nexthop()) {
        interface.state.nexthop_address = ipv6 ? "2001:db8:9::1" : "192.0.2.99";
      }
    }
  }
}

bool bird_takes(const TemporaryDirectory& directory, const std::string& routes) {
  const std::string path = directory.write(
      "bird.conf",
      "router id 192.0.2.10;\nipv4 table master4;\nipv6 table master6;\nprotocol device { }\n" +
          routes);
  const std::string command = "PATH=$PATH:/usr/sbin bird -p -c " + path + " 2>/dev/null";
  return std::system(command.c_str()) == 0;
}

}  // namespace

TEST(CheckBirdTest, BirdIsThereAndRefusesWhatIsWrong) {
  const TemporaryDirectory directory;
  EXPECT_TRUE(bird_takes(directory, "")) << "is bird2 installed? (scripts/bootstrap)";
  EXPECT_FALSE(
      bird_takes(directory, protocol_static_text("route 10.0.0.1/8 via 1.2.3.4;\n", false)));
}

TEST(CheckBirdTest, RoutesOfCleanConfigurationsAreTakenWhole) {
  const TemporaryDirectory directory;
  const unsigned int seed = std::random_device{}();
  Writer writer(seed);
  int clean = 0;
  for (int i = 0; i < kTries; ++i) {
    const std::string text = writer.configuration();
    if (!check_text(text, nullptr).empty()) continue;
    ++clean;
    const auto configuration = load_configuration_text(text, "random");
    ASSERT_TRUE(configuration->complete && configuration->messages.empty()) << text;
    make_active(configuration->model);
    std::string body;
    for (const bool ipv6 : {false, true}) {
      const StaticRoutes built = build_static_routes(configuration->model, ipv6, "default");
      body += protocol_static_text(built.body, ipv6);
    }
    // Nothing is left out of it with a word of the log.
    ASSERT_TRUE(take_log_messages().empty()) << text;
    ASSERT_FALSE(body.empty()) << text;
    ASSERT_TRUE(bird_takes(directory, body)) << "seed " << seed << "\n" << text << body;
  }
  EXPECT_GE(clean, kLeastClean) << "seed " << seed;
}

}  // namespace lbctl
