#include "lbctl/explain_members.h"

#include <algorithm>

#include <fmt/format.h>

#include "lbctl/discovered_nexthops.h"
#include "lbctl/print.h"

namespace lbctl {

namespace {

struct Member {
  std::string label;
  bool ipv6 = false;
  int32_t weight = 0;
  bool has_whole_weight = false;  // of the records there is the low byte alone
  const InterfaceDump* interface = nullptr;
};

// From the configuration, which has names and whole weights, else from the records.
std::vector<Member> members_of(const Situation& situation, const RuleDump& rule) {
  std::vector<Member> members;
  if (const LBRule* const known = situation.configured(rule)) {
    for (const auto& [name, member] : known->members) {
      members.push_back({interface_label(name, member.ipv6), member.ipv6, member.weight, true,
                         situation.interface_dump(name, member.ipv6)});
    }
    return members;
  }
  for (const MemberDump& member : rule.members) {
    members.push_back({interface_label(member.device, member.ipv6), member.ipv6, member.weight,
                       false, situation.interface_dump(member.device, member.ipv6)});
  }
  return members;
}

// Who carries a failover rule's traffic, null for nobody: the heaviest, which without whole weights
// only the daemon's choice tells.
const Member* chosen_of(const RuleDump& rule, const std::vector<Member>& eligible) {
  const auto heaviest = std::max_element(
      eligible.begin(), eligible.end(),
      [](const Member& first, const Member& second) { return first.weight < second.weight; });
  if (heaviest == eligible.end()) return nullptr;
  if (heaviest->has_whole_weight) return &*heaviest;
  const auto is_chosen = [&rule](const Member& member) {
    return std::any_of(rule.routes.begin(), rule.routes.end(), [&member](const RouteDump& route) {
      return !route.nexthop.empty() && route.nexthop == member.interface->nexthop;
    });
  };
  const auto chosen = std::find_if(eligible.begin(), eligible.end(), is_chosen);
  return chosen == eligible.end() ? nullptr : &*chosen;
}

std::string why_it_stands_by(const Member& member, const Member* chosen) {
  if (chosen == nullptr) return fmt::format("{} stands by: none is chosen.", member.label);
  if (!member.has_whole_weight) {
    return fmt::format("{} stands by: {} is chosen.", member.label, chosen->label);
  }
  if (chosen->weight == member.weight) {
    return fmt::format("{} stands by: {} has the same weight {} and comes first by name.",
                       member.label, chosen->label, chosen->weight);
  }
  return fmt::format("{} stands by: {} is heavier (weight {} against {}).", member.label,
                     chosen->label, chosen->weight, member.weight);
}

bool requires_nexthop(const Situation& situation) {
  return situation.configuration != nullptr && situation.configuration->model.options->bird2_routes;
}

std::string place_of(const Situation& situation, const InterfaceDump& interface) {
  const LBInterface* const known = situation.configured(interface);
  const std::string place = known == nullptr ? "" : place_of_nexthop(*known);
  return place.empty() ? "" : fmt::format("; it is looked for in {}", place);
}

// Why the member cannot even be chosen; empty when it can.
std::string fault_of(const Situation& situation, const RuleDump& rule, const Member& member,
                     std::string& next_step) {
  if (member.ipv6 != rule.ipv6) {
    next_step = "Put it into a rule of its own family.";
    return "is of the other family";
  }
  if (member.interface == nullptr && situation.configured(rule) == nullptr) {
    next_step = "Name the configuration (-f FILE): only it tells which interface has that device.";
    return "is a device that no interface has as its name";
  }
  if (member.interface == nullptr) {
    next_step =
        "Give it a block in the health section, or correct the name; then restart the "
        "daemon.";
    return "has no interface of that name in the health section";
  }
  if (member.interface->vrf != rule.vrf) {
    next_step = "Give the rule and the interface the same \"namespace\".";
    return fmt::format("is in VRF {}, and the rule is in VRF {}", member.interface->vrf, rule.vrf);
  }
  if (!member.interface->active) {
    next_step = fmt::format("lbctl explain {}", member.label);
    if (!member.interface->was_looked_at()) return "is FAILED";
    return fmt::format("is FAILED for {}", span(member.interface->change_age));
  }
  if (requires_nexthop(situation) && member.interface->nexthop.empty()) {
    next_step = fmt::format("lbctl explain {}", member.label);
    return "is ACTIVE, but has no next hop yet" + place_of(situation, *member.interface);
  }
  return "";
}

}  // namespace

MemberReport report_members(const Situation& situation, const RuleDump& rule) {
  MemberReport report;
  std::vector<Member> eligible;
  const auto set_step = [&report](const std::string& step) {
    if (report.next_step.empty()) report.next_step = step;
  };
  for (const Member& member : members_of(situation, rule)) {
    std::string step;
    const std::string fault = fault_of(situation, rule, member, step);
    if (fault.empty()) {
      eligible.push_back(member);
      continue;
    }
    report.sentences.push_back(fmt::format("{} {}.", member.label, fault));
    const bool is_untold = member.interface == nullptr && situation.configured(rule) == nullptr;
    report.is_complete = report.is_complete && !(is_untold && member.ipv6 == rule.ipv6);
    set_step(step);
  }
  if (report.sentences.empty() && eligible.empty()) {
    report.sentences.emplace_back("The rule has no members.");
    set_step("Give the rule members (\"interface NAME {\" with a weight).");
  }

  const Member* const chosen = rule.failover ? chosen_of(rule, eligible) : nullptr;
  for (const Member& member : eligible) {
    const InterfaceDump& interface = *member.interface;
    if (rule.failover && &member != chosen) {
      report.sentences.push_back(why_it_stands_by(member, chosen));
    } else if (member.weight == 0 && !member.has_whole_weight && !rule.failover) {
      report.sentences.push_back(fmt::format(
          "{} is ACTIVE; whether it has a weight only the configuration tells (-f FILE).",
          member.label));
      report.is_complete = false;
    } else if (member.weight == 0 && member.has_whole_weight) {
      report.sentences.push_back(
          fmt::format("{} has no weight in the rule, so it carries nothing.", member.label));
      set_step("Give the member a weight of 1 or more, then restart the daemon.");
    } else if (interface.nexthop.empty()) {
      report.sentences.push_back(fmt::format("{} is ACTIVE{}, but has no next hop yet{}.",
                                             member.label, rule.failover ? " and the heaviest" : "",
                                             place_of(situation, interface)));
      set_step(fmt::format("lbctl explain {}", member.label));
    } else {
      report.sentences.push_back(
          fmt::format("{} carries it by {}{}.", member.label, interface.nexthop,
                      member.has_whole_weight ? fmt::format(", weight {}", member.weight) : ""));
      report.carriers.push_back({member.label, interface.nexthop});
    }
  }
  return report;
}

}  // namespace lbctl
