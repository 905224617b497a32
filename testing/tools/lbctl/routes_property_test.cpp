// `lbctl routes` and the daemon give the same bytes, for thousands of random configurations and
// states: the same text goes through the subcommand, and through the daemon's reader, discovery and
// decision into the daemon's file.
#include <gtest/gtest.h>

#include <cstdio>
#include <filesystem>
#include <random>
#include <string>
#include <vector>

#include "config/config_reader.h"
#include "lbctl/run_command.h"
#include "routing/nexthop_discovery.h"
#include "routing/route_decision.h"
#include "support/model_builder.h"
#include "support/redirected_places.h"
#include "support/wrapped_calls.h"
#include "tests/probe_factory.h"

namespace lbctl {
namespace {

// A configuration as people write them, and as they should not.
class RandomText {
 public:
  explicit RandomText(std::mt19937& random) : random_(random) {}

  std::string make() {
    text_.clear();
    make_options();
    text_ += "health {\n";
    for (size_t count = one_in(10) ? 0 : 2 + below(8); count > 0; --count) make_interface();
    text_ += "}\n";
    for (size_t count = one_in(10) ? 0 : 2 + below(5); count > 0; --count) make_rule();
    if (one_in(40)) text_ += "}\n";  // brackets that do not match
    return text_;
  }

  size_t below(size_t limit) { return random_() % limit; }
  bool one_in(size_t times) { return below(times) == 0; }
  std::string one_of(const std::vector<std::string>& words) { return words[below(words.size())]; }

 private:
  void line(const std::string& words) { text_ += "  " + words + "\n"; }
  std::string name() { return one_of({"wan1", "wan2", "wan3", "gre0"}); }

  void make_options() {
    if (one_in(2)) return;
    text_ += "options {\n";
    if (one_in(2)) line("routing-daemon bird2");
    if (one_in(3)) line("discovery linux");
    if (one_in(3)) line("keep-last-routes");
    text_ += "}\n";
  }

  void make_interface() {
    const bool ipv6 = one_in(3);
    line((ipv6 ? "interface6 " : "interface ") + name() + " {");
    if (!one_in(8)) {
      line("nexthop " + one_of(ipv6 ? std::vector<std::string>{"fe80::1", "2001:db8::1", "dhcp",
                                                               "tunnel", "kernel", "ff02::1"}
                                    : std::vector<std::string>{"192.0.2.1", "198.51.100.1", "dhcp",
                                                               "tunnel", "kernel", "127.0.0.1"}));
    }
    if (one_in(5)) line("namespace " + one_of({"red", "default"}));
    if (one_in(4)) line("origin " + one_of({"eth0", "ppp0", "primary", "a_name_that_is_too_long"}));
    line("}");
  }

  void make_rule() {
    const bool ipv6 = one_in(3);
    text_ += "rule " + std::to_string(1 + below(12));
    text_ += (one_in(20) ? "" : ipv6 ? "_ipv6" : "_ipv4") + std::string(" {\n");
    if (one_in(3)) line("failover");
    if (one_in(5)) line("namespace " + one_of({"red", "default"}));
    for (size_t count = one_in(10) ? 0 : 1 + below(4); count > 0; --count) {
      line((one_in(8) != ipv6 ? "interface6 " : "interface ") + name() + " {");
      line("weight " + one_of({"1", "2", "7", "256", "1000", "0", "100000", "x"}));
      line("}");
    }
    for (size_t count = one_in(10) ? 0 : 1 + below(3); count > 0; --count) {
      line("target {");
      line("address " + one_of({"0.0.0.0/0", "default", "203.0.113.77/24", "10.0.0.0/8", "::/0",
                                "2001:db8::/32", "10.0.0.0/99", "nowhere"}));
      if (one_in(3)) line("metric " + one_of({"0", "10", "-1", "4294967295"}));
      line("}");
    }
    text_ += "}\n";
  }

  std::mt19937& random_;
  std::string text_;
};

class RoutesProperty : public RedirectedPlacesTest {
 protected:
  RoutesProperty() {
    for (const char* vrf : {"default", "red"}) {
      for (const bool ipv6 : {false, true}) directory_.write(route_file_path(vrf, ipv6), "");
    }
    directory_.write(lease_file_path("wan1", false), "  option routers 192.0.2.77;\n");
    directory_.write(lease_file_path("eth0", false),
                     "lease {\n  interface \"eth0\";\n  option routers 192.0.2.78;\n"
                     "  expire never;\n}\n");
    directory_.write(lease_file_path("wan2", true), "new_routers='fe80::77'\n");
  }

  // The routing daemon is left alone.
  CallHook<FILE*(const char*, const char*)> popen_hook_{
      wrapped::popen, [](const char*, const char*) -> FILE* { return nullptr; }};
};

// What is asked in one round.
struct Question {
  std::string vrf;
  bool ipv6 = false;
  bool names_up = false;
  std::vector<std::string> named;                             // of the family
  std::vector<std::pair<std::string, std::string>> nexthops;  // of the family
};

// Leaves the file as the daemon would.
void run_daemon_for(const std::string& config_path, const Question& question) {
  LBConfig config;
  std::set<std::string> namespaces;
  const LBTestFactory factory;
  ConfigReader(config, namespaces, factory).read_config(config_path);
  const LBWorkerContext worker = worker_of(question.ipv6, question.vrf);
  InterfaceMap& interfaces = config.interfaces_of(question.ipv6);
  resolve_dhcp_nexthops(config, worker);
  for (const auto& [name, address] : question.nexthops) set_found(interfaces.at(name), address);

  // A daemon that has run for a while, and then sees the states come about.
  std::filesystem::remove(route_file_path(question.vrf, question.ipv6));
  LBDecision decision;
  for (auto& [name, interface] : interfaces) set_active(interface, true);
  decision.run(config, worker);
  for (auto& [name, interface] : interfaces) set_active(interface, !question.names_up);
  for (const std::string& name : question.named) {
    set_active(interfaces.at(name), question.names_up);
  }
  decision.run(config, worker);
}

std::string lbctls_output(const std::string& config_path, const Question& question) {
  std::vector<std::string> words{"routes", config_path, question.ipv6 ? "-6" : "-4", "--vrf",
                                 question.vrf};
  for (const std::string& name : question.named) {
    words.insert(words.end(),
                 {question.names_up ? "--up" : "--down", name + (question.ipv6 ? "/6" : "")});
  }
  for (const auto& [name, address] : question.nexthops) {
    words.insert(words.end(), {"--nexthop", name + (question.ipv6 ? "/6=" : "=") +
                                                (address.empty() ? "-" : address)});
  }
  const Outcome outcome = run_command(words);
  EXPECT_EQ(outcome.status, kExitOk) << outcome.complaint;
  return outcome.output;
}

TEST_F(RoutesProperty, BytesAreTheDaemons) {
  int with_routes = 0;
  for (unsigned int seed = 1; seed <= 3000; ++seed) {
    SCOPED_TRACE("seed " + std::to_string(seed));
    std::mt19937 random(seed);
    RandomText text(random);
    const std::string path = directory_.write("lb.conf", text.make());

    LBConfig config;
    std::set<std::string> namespaces;
    const LBTestFactory factory;
    ConfigReader(config, namespaces, factory).read_config(path);
    Question question;
    question.vrf = namespaces.contains("red") && text.one_in(4) ? "red" : "default";
    question.ipv6 = text.one_in(3);
    question.names_up = text.one_in(4);
    bool has_interfaces = false;
    for (const auto& [name, interface] : config.interfaces_of(question.ipv6)) {
      has_interfaces = has_interfaces || interface.vrf == question.vrf;
      if (text.one_in(4)) question.named.push_back(name);
      // This machine is not asked for tunnels and routes; some leases are found.
      if (!interface.discovers_nexthop() || (interface.nexthop == "dhcp" && text.one_in(2))) {
        continue;
      }
      question.nexthops.emplace_back(
          name, text.one_of(question.ipv6 ? std::vector<std::string>{"fe80::5", "2001:db8::5", ""}
                                          : std::vector<std::string>{"192.0.2.5", "10.9.9.9", ""}));
    }
    if (question.named.empty()) question.names_up = false;  // all are up then
    bool has_rules = false;
    for (const auto& [name, rule] : config.rules) {
      has_rules = has_rules || (rule.vrf == question.vrf && is_ipv4_rule(name) != question.ipv6);
    }

    std::string expected;  // without both no worker is started
    if (has_interfaces && has_rules) {
      run_daemon_for(path, question);
      expected = directory_.read(route_file_path(question.vrf, question.ipv6));
    }
    with_routes += expected.empty() ? 0 : 1;
    const std::string output = lbctls_output(path, question);
    if (output != expected || HasFailure()) {
      FAIL() << "configuration:\n"
             << directory_.read("lb.conf") << "daemon:\n"
             << expected << "lbctl routes:\n"
             << output;
    }
  }
  EXPECT_GT(with_routes, 700) << "too few of the configurations gave a route";
}

}  // namespace
}  // namespace lbctl
