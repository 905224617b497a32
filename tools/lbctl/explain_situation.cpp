#include "lbctl/explain_situation.h"

#include <algorithm>

#include <fmt/format.h>

#include "lbctl/print.h"
#include "platform/places.h"

namespace lbctl {

std::string text_of(const Explanation& explanation) {
  std::string text = printable(explanation.headline) + "\n";
  for (const std::string& reason : explanation.reasons) text += "  - " + printable(reason) + "\n";
  text += "  Next step: " + printable(explanation.next_step) + "\n";
  return text;
}

const InterfaceDump* Situation::interface_dump(const std::string& name, bool ipv6) const {
  const auto found = std::find_if(
      dumps.interfaces.begin(), dumps.interfaces.end(),
      [&](const InterfaceDump& dump) { return dump.name == name && dump.ipv6 == ipv6; });
  return found == dumps.interfaces.end() ? nullptr : &*found;
}

const LBInterface* Situation::configured(const InterfaceDump& interface) const {
  if (configuration == nullptr) return nullptr;
  const InterfaceMap& interfaces = configuration->model.interfaces_of(interface.ipv6);
  const auto found = interfaces.find(interface.name);
  return found == interfaces.end() ? nullptr : &found->second;
}

const LBRule* Situation::configured(const RuleDump& rule) const {
  if (configuration == nullptr) return nullptr;
  const auto found = configuration->model.rules.find(rule_name(rule));
  return found == configuration->model.rules.end() ? nullptr : &found->second;
}

std::optional<std::string> Situation::device_of(const InterfaceDump& interface) const {
  if (const LBInterface* const known = configured(interface)) return known->origin;
  for (const RuleDump& rule : dumps.rules) {
    for (const MemberDump& member : rule.members) {
      if (member.device == interface.name && member.ipv6 == interface.ipv6) return member.device;
    }
  }
  return std::nullopt;
}

bool Situation::has_rules(const std::string& vrf, bool ipv6) const {
  return std::any_of(dumps.rules.begin(), dumps.rules.end(),
                     [&](const RuleDump& rule) { return rule.vrf == vrf && rule.ipv6 == ipv6; });
}

bool Situation::has_interfaces(const std::string& vrf, bool ipv6) const {
  return std::any_of(
      dumps.interfaces.begin(), dumps.interfaces.end(),
      [&](const InterfaceDump& dump) { return dump.vrf == vrf && dump.ipv6 == ipv6; });
}

std::string rule_name(const RuleDump& rule) {
  return fmt::format("{}_ipv{}", rule.number, rule.ipv6 ? 6 : 4);
}

std::string in_vrf(const std::string& vrf) {
  return vrf == kDefaultNamespace ? "" : " in VRF " + vrf;
}

std::string command_in(const std::string& vrf, const std::string& command) {
  return vrf == kDefaultNamespace ? command : fmt::format("ip netns exec {} {}", vrf, command);
}

std::string counted(int64_t count, const std::string& noun) {
  if (count == 1) return fmt::format("1 {}", noun);
  return fmt::format("{} {}{}", count, noun, noun.ends_with("success") ? "es" : "s");
}

}  // namespace lbctl
