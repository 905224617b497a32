// What an explanation is made from, and what it is.
#pragma once

#include <optional>
#include <string>
#include <vector>

#include "lbctl/configuration.h"
#include "lbctl/dumps.h"
#include "lbctl/explain_machine.h"

namespace lbctl {

struct Explanation {
  std::string headline;
  bool is_well = false;
  std::vector<std::string> reasons;
  std::string next_step;

  // The first next step that is found is the one to take.
  void add(const std::string& reason) { reasons.push_back(reason); }
  void add(const std::string& reason, const std::string& step) {
    reasons.push_back(reason);
    if (next_step.empty()) next_step = step;
  }
};

std::string text_of(const Explanation& explanation);

struct Situation {
  const Dumps& dumps;
  const Configuration* configuration;  // null: what only it knows stays unsaid
  const Router& machine;

  const InterfaceDump* interface_dump(const std::string& name, bool ipv6) const;

  // The configured interface or rule behind a record; null without one.
  const LBInterface* configured(const InterfaceDump& interface) const;
  const LBRule* configured(const RuleDump& rule) const;

  // The Linux device, as far as it is known: without a configuration, where a rule names it.
  std::optional<std::string> device_of(const InterfaceDump& interface) const;

  // False where a VRF has no rule (no interface) of a family: nothing is probed (routed) there.
  bool has_rules(const std::string& vrf, bool ipv6) const;
  bool has_interfaces(const std::string& vrf, bool ipv6) const;
};

// The daemon's name of a rule: "1_ipv4".
std::string rule_name(const RuleDump& rule);

// "" for the default VRF, else " in VRF red".
std::string in_vrf(const std::string& vrf);

// A command for the VRF: "ip netns exec red ping ...".
std::string command_in(const std::string& vrf, const std::string& command);

// "1 failure", "3 failures".
std::string counted(int64_t count, const std::string& noun);

}  // namespace lbctl
