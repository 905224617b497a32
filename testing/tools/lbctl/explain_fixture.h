// A state to be explained: a configuration, the dumps of a daemon that runs with it, and a machine
// that answers as told.
#pragma once

#include <gtest/gtest.h>
#include <linux/neighbour.h>
#include <linux/rtnetlink.h>

#include <map>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "config/health_test.h"
#include "lbctl/explain_question.h"
#include "routing/static_routes.h"
#include "support/redirected_places.h"

namespace lbctl {

// By device, address, path. What is not given is healthy: a device that is up, a neighbour that is
// reachable; files and kernel routes are not there.
class FakeRouter : public Router {
 public:
  std::string vrf_refusal(const std::string& vrf) const override {
    return closed_vrfs.contains(vrf) ? "VRF " + vrf + " cannot be entered: Operation not permitted"
                                     : "";
  }
  bool has_vrf(const std::string& vrf) const override { return !missing_vrfs.contains(vrf); }
  std::optional<DeviceState> device(const std::string& vrf,
                                    const std::string& name) const override {
    if (closed_vrfs.contains(vrf)) return std::nullopt;
    const auto found = devices.find(name);
    if (found != devices.end()) return found->second;
    return DeviceState{.exists = true, .is_up = true, .has_carrier = true, .resolves = true};
  }
  std::optional<uint16_t> neighbor(const std::string& /*vrf*/, bool /*ipv6*/,
                                   const std::string& /*device*/,
                                   const std::string& /*address*/) const override {
    return neighbor_state;
  }
  std::optional<std::string> dropped_replies(const std::string& /*vrf*/, const std::string& device,
                                             const std::string& source,
                                             const std::string& target) const override {
    if (device != filtering_device) return std::nullopt;
    return "device drops what comes from " + target + " to " + source;
  }
  std::optional<std::vector<KernelRoute>> kernel_routes(const std::string& vrf,
                                                        bool /*ipv6*/) const override {
    if (closed_vrfs.contains(vrf)) return std::nullopt;
    return kernel;
  }
  FileLook file(const std::string& path) const override {
    const auto found = files.find(path);
    if (found != files.end()) return found->second;
    return {.fault = "No such file or directory", .is_absent = true, .text = ""};
  }
  std::string routing_daemon_fault(const std::string& /*vrf*/) const override {
    return routing_fault;
  }
  std::string bird_configuration_without(const std::string& /*vrf*/,
                                         const std::string& /*path*/) const override {
    return bird_configuration;
  }
  BirdVerdict bird(const std::string& /*text*/, const std::string& name) const override {
    return {true, bird_fault.empty(), bird_fault.empty() ? "" : name + bird_fault};
  }

  std::set<std::string> closed_vrfs;
  std::set<std::string> missing_vrfs;
  std::map<std::string, DeviceState> devices;
  std::optional<uint16_t> neighbor_state = NUD_REACHABLE;
  std::vector<KernelRoute> kernel;
  std::map<std::string, FileLook> files;
  std::string routing_fault;
  std::string bird_fault;
  std::string filtering_device;
  std::string bird_configuration;
};

class ExplainFixture : public RedirectedPlacesTest {
 protected:
  ExplainFixture() {
    redirect_places("");
    dumps_.newest.tv_sec = kNow;
  }

  void configure(const std::string& text) {
    configuration_ = load_configuration_text(text, "lb.conf");
  }

  // An interface as the daemon shows it, failed and with one target that does not answer.
  InterfaceDump& add_failed(const std::string& name, bool ipv6 = false) {
    InterfaceDump& dump = dumps_.interfaces.emplace_back();
    dump.name = name;
    dump.ipv6 = ipv6;
    dump.vrf = "default";
    dump.nexthop = ipv6 ? "fe80::1" : "192.0.2.1";
    dump.success_ct = 3;
    dump.failure_ct = 2;
    dump.change_age = 75;
    dump.tests.push_back(test(ipv6 ? "2001:db8::7" : "198.51.100.7", kResultFailure, 2));
    return dump;
  }
  InterfaceDump& add_active(const std::string& name, const std::string& nexthop = "192.0.2.1",
                            bool ipv6 = false) {
    InterfaceDump& dump = add_failed(name, ipv6);
    dump.active = true;
    dump.nexthop = nexthop;
    dump.tests.front() = test(dump.tests.front().target, kResultSuccess, 3);
    return dump;
  }
  static TestDump test(const std::string& target, int32_t result, int32_t count) {
    TestDump dump;
    dump.target = target;
    dump.result = result;
    (result == kResultSuccess ? dump.success_count : dump.failure_count) = count;
    return dump;
  }

  RuleDump& add_rule(std::vector<MemberDump> members, const std::string& destination,
                     bool ipv6 = false) {
    RuleDump& rule = dumps_.rules.emplace_back();
    rule.number = static_cast<int32_t>(dumps_.rules.size());
    rule.ipv6 = ipv6;
    rule.vrf = "default";
    rule.members = std::move(members);
    rule.routes.push_back({destination, "", -1, 1});
    return rule;
  }

  // The routing daemon's file with these lines.
  void write_routes(const std::vector<std::string>& lines, bool ipv6 = false,
                    const std::string& vrf = "default") {
    std::string body;
    for (const std::string& line : lines) body += line + "\n";
    machine_.files[route_file_path(vrf, ipv6)] = {"", false, protocol_static_text(body, ipv6)};
  }
  void add_kernel_route(const std::string& destination, const std::string& address,
                        const std::string& device, uint32_t metric = 32,
                        uint8_t protocol = RTPROT_BIRD) {
    machine_.kernel.push_back({destination, metric, protocol, {{address, device, 1}}});
  }

  // What is said about the subject; the note that there is no configuration left out.
  std::string explained(const std::string& subject = "") {
    if (configuration_) take_over_states(dumps_, configuration_->model);
    const Answer found = answer({dumps_, configuration_.get(), machine_}, subject, kNow);
    is_well_ = found.is_well;
    return found.text.substr(0, found.text.find("The configuration was not looked at"));
  }

  static constexpr std::time_t kNow = 1'700'000'000;
  Dumps dumps_;
  std::unique_ptr<Configuration> configuration_;
  FakeRouter machine_;
  bool is_well_ = false;
};

// The block of an interface in a health section, and rules that have it.
inline std::string health_with(const std::string& block) { return "health {\n" + block + "\n}\n"; }

}  // namespace lbctl
