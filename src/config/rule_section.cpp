#include "config/rule_section.h"

#include "config/log.h"

RuleSection::RuleSection(LBConfig& config, std::set<std::string>& namespaces)
    : config_(config), namespaces_(namespaces) {}

void RuleSection::apply(const ConfigLine& line) {
  const std::string& block = line.block();
  if (line.depth >= 2 && (block == "interface" || block == "interface6")) {
    apply_to_member(line);
  } else if (line.depth >= 1 && block == "failover") {
    if (rule_ != nullptr) rule_->failover = 1;
  } else if (line.depth >= 1 && block == "namespace") {
    if (rule_ == nullptr) return;
    rule_->vrf = line.value;
    namespaces_.insert(line.value);
  } else if (line.depth >= 2 && block == "target") {
    apply_to_target(line);
  } else {
    select_rule(line);
  }
}

void RuleSection::select_rule(const ConfigLine& line) {
  if (line.key.empty()) return;
  if (line.signed_number() < 1) {
    LB_WARNING("Illegal rule number: %s", line.value.c_str());
    return;
  }
  // Named by the text, not by the number: the rest of the name tells the rule's family.
  rule_ = &config_.rules[line.value];
}

void RuleSection::apply_to_member(const ConfigLine& line) {
  if (line.key == "interface" || line.key == "interface6") {
    if (rule_ == nullptr) return;
    const LBRuleInterface fresh{.ipv6 = line.key == "interface6", .weight = 0};
    member_ = &rule_->members.try_emplace(line.value, fresh).first->second;
  } else if (line.key == "weight") {
    if (line.signed_number() < 1) {
      LB_ERROR("wan_lb: illegal interface weight specified in configuration file: %s",
               line.value.c_str());
    } else if (member_ != nullptr) {
      member_->weight = line.signed_number();
    }
  }
}

void RuleSection::apply_to_target(const ConfigLine& line) {
  if (line.key == "address") {
    if (rule_ != nullptr) target_ = &rule_->targets[line.value];
  } else if (line.key == "metric") {
    if (target_ != nullptr) target_->metric = line.signed_number();
  }
}
