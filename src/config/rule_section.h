// The sections "rule" of the configuration file.
//
//   rule 1_ipv4 {
//     interface eth0 {
//       weight 2
//     }
//     failover
//     target {
//       address 203.0.113.0/24
//       metric 10
#pragma once

#include <set>
#include <string>

#include "config/config_line.h"
#include "config/lb_config.h"

// Applies the lines in their order: a line acts on the rule, the member and the target that earlier
// lines chose. One thread only.
class RuleSection {
 public:
  RuleSection(LBConfig& config, std::set<std::string>& namespaces);

  // A line that has nothing to act on is ignored.
  void apply(const ConfigLine& line);

 private:
  void select_rule(const ConfigLine& line);
  void apply_to_member(const ConfigLine& line);
  void apply_to_target(const ConfigLine& line);

  LBConfig& config_;
  std::set<std::string>& namespaces_;
  LBRule* rule_ = nullptr;
  LBRuleInterface* member_ = nullptr;
  LBTarget* target_ = nullptr;
};
