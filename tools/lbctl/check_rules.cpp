#include <algorithm>
#include <map>
#include <set>
#include <tuple>

#include <fmt/format.h>

#include "lbctl/check_model.h"
#include "lbctl/check_nearest_word.h"
#include "lbctl/families.h"
#include "output/dump_format.h"
#include "output/dump_records.h"

namespace lbctl {

namespace {

constexpr int64_t kLargestWeight = 256;  // of BIRD

using VrfFamily = std::pair<std::string, bool>;

class RuleChecks {
 public:
  RuleChecks(const View& view, Findings& findings) : view_(view), findings_(findings) {}

  void run() {
    for (const RuleView& rule : view_.rules) {
      check_name(rule);
      for (const MemberView& member : rule.members) check_member(rule, member);
      for (const MemberView& member : rule.lost) tell_lost(rule, member);
      for (const DestinationView& target : rule.destinations) check_destination(rule, target);
      check_failover(rule);
      check_sizes(rule);
    }
    check_served();
    check_gateways();
  }

 private:
  bool is_bird2() const { return view_.options.bird2_routes; }

  // With its option, members and destinations of both families keep to themselves.
  bool may_mix(const RuleView& rule) const {
    return is_bird2() && rule.has_members(false) && rule.has_members(true);
  }

  void check_name(const RuleView& rule) {
    const auto number = static_cast<int32_t>(read_number(rule.name).value);
    if (number < 1) {
      findings_.add(
          rule.name_place, "bad-rule-name",
          fmt::format("'{}' does not begin with a number of 1 or more: the daemon refuses "
                      "it, and takes its lines for the rule before",
                      rule.name),
          "name the rule NUMBER_ipv4 or NUMBER_ipv6");
    } else if (!rule.is_number_ipv) {
      findings_.add(
          rule.name_place, "not-dumpable",
          parse_rule_key(rule.name)
              ? fmt::format("'{}' has more than a number and a family: the rules dump "
                            "shows these alone",
                            rule.name)
              : fmt::format("'{}' tells no family: the rules dump ends at this rule, and "
                            "the daemon takes it for an {} rule",
                            rule.name, family_name(rule.name.find("ipv4") == std::string::npos)),
          "name the rule NUMBER_ipv4 or NUMBER_ipv6");
    } else if (!read_number(rule.name).fits) {
      findings_.add(
          rule.name_place, "out-of-range",
          fmt::format("the number of '{}' is too large: dumps show another one", rule.name),
          "write a number from 1 to 2147483647");
    }
  }

  void check_member(const RuleView& rule, const MemberView& member) {
    if (member.ipv6 != rule.ipv6 && !may_mix(rule)) {
      findings_.add(member.place, "wrong-family",
                    fmt::format("'{}' is an {} interface in an {} rule: its next hops stand in a "
                                "file of the other family, which the routing daemon refuses",
                                member.name, family_name(member.ipv6), family_name(rule.ipv6)),
                    view_.find(member.name, rule.ipv6) == nullptr
                        ? "make a rule of its own for each family"
                        : fmt::format("write '{} {}', or make a rule of its own for each family",
                                      rule.ipv6 ? "interface6" : "interface", member.name));
      troubled_.insert(rule.name);
      return;
    }
    const InterfaceView* const interface = view_.find(member.name, member.ipv6);
    if (interface == nullptr) {
      tell_missing(rule, member);
      troubled_.insert(rule.name);
    } else if (interface->vrf() != rule.vrf()) {
      findings_.add(member.place, "other-vrf",
                    fmt::format("{} is of the VRF '{}' and the rule of '{}': it carries nothing",
                                interface->label(), interface->vrf(), rule.vrf()),
                    "give both the same 'namespace'");
      troubled_.insert(rule.name);
      elsewhere_.insert(interface);
    }
    check_weight(member);
  }

  void tell_lost(const RuleView& rule, const MemberView& member) {
    findings_.add(member.place, "wrong-family",
                  fmt::format("the rule has '{}' as an {} interface already: the daemon takes this "
                              "one for that, and the {} one carries nothing",
                              member.name, family_name(!member.ipv6), family_name(member.ipv6)),
                  "make a rule of its own for each family");
    troubled_.insert(rule.name);
    // That it is in no rule has the same cause.
    if (const auto* meant = view_.find(member.name, member.ipv6)) elsewhere_.insert(meant);
  }

  void tell_missing(const RuleView& rule, const MemberView& member) {
    std::vector<std::string_view> known;
    for (const InterfaceView& interface : view_.interfaces) {
      const bool is_member =
          std::any_of(rule.members.begin(), rule.members.end(),
                      [&](const MemberView& other) { return other.name == interface.name; });
      if (interface.ipv6 == member.ipv6 && !is_member) known.push_back(interface.name);
    }
    const std::string nearest = nearest_word(member.name, known);
    // That it is in no rule has the same cause.
    if (const auto* meant = view_.find(nearest, member.ipv6)) elsewhere_.insert(meant);
    const bool is_other = view_.find(member.name, !member.ipv6) != nullptr;
    const char* const block = member.ipv6 ? "interface6" : "interface";
    findings_.add(
        member.name_place, "no-such-interface",
        fmt::format("the section health has no '{} {}': the daemon never finds it active, "
                    "and it carries nothing",
                    block, member.name),
        !nearest.empty() ? fmt::format("did you mean '{}'?", nearest)
        : is_other
            ? fmt::format("health has '{}' of the other family only: add the "
                          "block '{} {}'",
                          member.name, block, member.name)
            : fmt::format("add the block '{} {}' to the section health", block, member.name));
  }

  void check_weight(const MemberView& member) {
    if (!member.weight) {
      if (member.meant.contains("weight")) return;
      findings_.add(member.place, "no-weight",
                    fmt::format("'{}' has no weight: the daemon takes 0, and it carries nothing",
                                member.name),
                    "add 'weight 1' or more");
    } else if (member.weight_number() > kLargestWeight && !is_bird2()) {
      findings_.add(member.weight->place, "weight-too-large",
                    fmt::format("weight {} is more than the routing daemon knows: it refuses the "
                                "whole file",
                                member.weight->value),
                    "write 256 at most, or ask for 'routing-daemon bird2', which scales weights");
    }
  }

  void check_destination(const RuleView& rule, const DestinationView& target) {
    const bool mixed = may_mix(rule);
    PrefixText prefix = read_destination(target.text, rule.ipv6);
    bool ipv6 = rule.ipv6;
    if (prefix.canonical.empty()) {
      prefix = read_destination(target.text, !rule.ipv6);
      ipv6 = !rule.ipv6;
    }
    if (prefix.canonical.empty()) {
      findings_.add(target.place, "bad-prefix",
                    fmt::format("'{}' is no address or prefix: {}", target.text,
                                is_bird2() ? "the daemon leaves it out"
                                           : "the routing daemon refuses the whole file"),
                    rule.ipv6 ? "write ADDRESS/LENGTH, such as 2001:db8::/32"
                              : "write ADDRESS/LENGTH, such as 203.0.113.0/24");
      return;
    }
    if (ipv6 != rule.ipv6 && !mixed) {
      findings_.add(target.place, "wrong-family",
                    fmt::format("'{}' is an {} destination in an {} rule: {}", target.text,
                                family_name(ipv6), family_name(rule.ipv6),
                                is_bird2() ? "the daemon leaves it out"
                                           : "the routing daemon refuses the whole file"),
                    "make a rule of its own for each family");
      return;
    }
    check_twice(rule, target, prefix, ipv6);
    check_for_bird2(target, prefix);
    check_metric(target);
  }

  void check_twice(const RuleView& rule, const DestinationView& target, const PrefixText& prefix,
                   bool ipv6) {
    const auto [entry, is_new] =
        destinations_.try_emplace({rule.vrf(), ipv6, prefix.canonical}, RoutedBy{&rule, &target});
    if (is_new) return;
    const DestinationView& first = *entry->second.target;
    if (entry->second.rule == &rule) {
      findings_.add(target.place, "duplicate-destination",
                    fmt::format("'{}' is a destination of this rule in line {} already: {}",
                                target.text, first.place.line,
                                target.text == first.text ? "the daemon takes both for one"
                                                          : "the second adds nothing to the first"),
                    "take one of the two away");
      return;
    }
    findings_.add(
        target.place, "duplicate-destination",
        fmt::format("'{}' is routed in line {} too: the routing daemon gets two routes to "
                    "one destination, and neither backs up the other",
                    target.text, first.place.line),
        "put all interfaces of a destination into one rule, 'failover' for a backup");
  }

  void check_for_bird2(const DestinationView& target, const PrefixText& prefix) {
    if (prefix.is_plain || is_bird2()) return;
    findings_.add(target.place, "not-for-bird2",
                  fmt::format("'{}' is written as it stands: BIRD 2 refuses a whole file for a "
                              "destination without a length or with host bits",
                              target.text),
                  fmt::format("write '{}', or ask for 'routing-daemon bird2'", prefix.canonical));
  }

  void check_metric(const DestinationView& target) {
    if (!target.metric) return;
    const Number number = read_number(target.metric->value);
    if (!number.has_digits || number.has_rest) return;
    const int64_t largest = is_bird2() ? int64_t{UINT32_MAX} - 1 : INT32_MAX;
    if (number.value < 0 || number.value > largest) {
      findings_.add(target.metric->place, "out-of-range",
                    fmt::format("metric '{}' is out of range: the daemon writes another one, or "
                                "none",
                                target.metric->value),
                    fmt::format("write a number from 0 to {}", largest));
    } else if (!is_bird2()) {
      findings_.add(
          target.metric->key, "metric",
          "BIRD 2 refuses a whole file for a 'metric' in the lines that the daemon writes",
          "set the metric in BIRD's kernel protocol, or ask for 'routing-daemon bird2'");
    }
  }

  void check_failover(const RuleView& rule) {
    if (!rule.failover) return;
    std::map<std::pair<bool, int64_t>, std::string> names;
    for (const MemberView& member : rule.members) {
      if (member.weight_number() == 0) continue;
      const auto [entry, is_new] =
          names.try_emplace({member.ipv6, member.weight_number()}, member.name);
      if (is_new) continue;
      findings_.add(member.weight->place, "failover-tie",
                    fmt::format("'{}' and '{}' of a failover rule have the same weight: the daemon "
                                "takes '{}', the first by name",
                                entry->second, member.name, std::min(entry->second, member.name)),
                    "give each interface of a failover rule a weight of its own");
    }
  }

  void check_sizes(const RuleView& rule) {
    const auto tell = [&](Place place, size_t count, const char* what, size_t most) {
      findings_.add(place, "too-many",
                    fmt::format("rule {} has {} {}: the dumps hold the first {}", rule.name, count,
                                what, most),
                    "all are in force; split the rule to see all of them");
    };
    if (rule.members.size() > kDumpMaxMembers) {
      tell(rule.members[kDumpMaxMembers].place, rule.members.size(), "interfaces", kDumpMaxMembers);
    }
    if (rule.destinations.size() > kDumpMaxRoutes) {
      tell(rule.destinations[kDumpMaxRoutes].place, rule.destinations.size(), "destinations",
           kDumpMaxRoutes);
    }
    const bool is_misspelt =
        rule.members.empty() ? rule.meant.contains("interface") || rule.meant.contains("interface6")
                             : rule.meant.contains("target") || rule.meant.contains("address");
    const bool is_refused = is_misspelt || static_cast<int32_t>(read_number(rule.name).value) < 1;
    if (!is_refused && (rule.members.empty() || rule.destinations.empty())) {
      findings_.add(rule.place, "empty-rule",
                    fmt::format("rule {} has no {}: the daemon writes no route for it", rule.name,
                                rule.members.empty() ? "interface" : "destination"),
                    rule.members.empty() ? "add 'interface NAME {' with a weight"
                                         : "add 'target {' with an address");
    }
  }

  // A worker runs for a VRF and family that has both.
  void check_served() {
    std::map<VrfFamily, std::vector<const InterfaceView*>> interfaces;
    std::map<VrfFamily, std::vector<const RuleView*>> rules;
    for (const InterfaceView& interface : view_.interfaces) {
      interfaces[{interface.vrf(), interface.ipv6}].push_back(&interface);
    }
    for (const RuleView& rule : view_.rules) rules[{rule.vrf(), rule.ipv6}].push_back(&rule);
    for (const auto& [where, found] : interfaces) {
      if (rules.contains(where)) {
        for (const InterfaceView* interface : found) check_used(*interface);
        continue;
      }
      const bool told = std::any_of(found.begin(), found.end(), [&](const auto* interface) {
        return elsewhere_.contains(interface);
      });
      if (told) continue;
      tell_unserved(found.front()->place, where, "interfaces but no rules: none is probed",
                    "add a rule");
    }
    for (const auto& [where, found] : rules) {
      const bool told = std::any_of(found.begin(), found.end(), [&](const RuleView* rule) {
        return troubled_.contains(rule->name) || rule->members.empty();
      });
      if (interfaces.contains(where) || told) continue;
      tell_unserved(found.front()->place, where, "rules but no interfaces: no route is written",
                    "add an interface to the section health");
    }
  }

  void tell_unserved(Place place, const VrfFamily& where, const char* has, const char* mend) {
    findings_.add(
        place, "unserved",
        fmt::format("the VRF '{}' has {} {}", where.first, family_name(where.second), has),
        fmt::format("{} of this VRF and family, or take the block away", mend));
  }

  void check_used(const InterfaceView& interface) {
    if (is_used(view_, interface) || elsewhere_.contains(&interface)) return;
    findings_.add(interface.place, "unused-interface",
                  fmt::format("no rule of its VRF has {}: it is probed and carries nothing",
                              interface.label()),
                  "add it to a rule, or take the block away");
  }

  // What only a next hop with its device can tell.
  void check_gateways() {
    if (is_bird2()) return;
    std::map<std::tuple<std::string, bool, std::string>, Place> gateways;
    for (const InterfaceView& interface : view_.interfaces) {
      const Setting* const nexthop = interface.find("nexthop");
      if (nexthop == nullptr || !is_used(view_, interface)) continue;
      const std::string& value = nexthop->value;
      if (is_link_local(value)) {
        if (!interface.ipv6) continue;
        findings_.add(nexthop->place, "not-for-bird2",
                      fmt::format("next hop '{}' is link-local and written without its device: "
                                  "the routing daemon does not know where it is",
                                  value),
                      "ask for 'routing-daemon bird2', which writes the device");
      } else if (kind_of_address(value) != AddressKind::kNone) {
        const auto [entry, is_new] =
            gateways.try_emplace({interface.vrf(), interface.ipv6, value}, nexthop->place);
        if (is_new) continue;
        findings_.add(nexthop->place, "not-for-bird2",
                      fmt::format("next hop '{}' is that of line {} too, and written without its "
                                  "device: both routes go out by one of the two",
                                  value, entry->second.line),
                      "ask for 'routing-daemon bird2', which writes the device");
      }
    }
  }

  const View& view_;
  Findings& findings_;
  std::set<std::string> troubled_;            // rules with a member that was told of
  std::set<const InterfaceView*> elsewhere_;  // members of rules, with a fault that was told
  struct RoutedBy {
    const RuleView* rule;
    const DestinationView* target;
  };
  std::map<std::tuple<std::string, bool, std::string>, RoutedBy> destinations_;
};

}  // namespace

bool is_used(const View& view, const InterfaceView& interface) {
  return std::any_of(view.rules.begin(), view.rules.end(), [&](const RuleView& rule) {
    return rule.vrf() == interface.vrf() &&
           std::any_of(rule.members.begin(), rule.members.end(), [&](const MemberView& member) {
             return member.name == interface.name && member.ipv6 == interface.ipv6;
           });
  });
}

void check_rules(const View& view, Findings& findings) { RuleChecks(view, findings).run(); }

}  // namespace lbctl
