#include "lbctl/check_view.h"

#include <algorithm>
#include <utility>

#include <fmt/format.h>

#include "config/lb_config.h"
#include "lbctl/check_nearest_word.h"

namespace lbctl {

namespace {

const Setting* find_in(const Settings& settings, const std::string& key) {
  const auto found = settings.find(key);
  return found == settings.end() ? nullptr : &found->second;
}

void tell_twice(Place place, const std::string& what, const std::string& effect,
                Findings& findings) {
  findings.add(place, "given-twice", fmt::format("{} is given twice: {}", what, effect),
               "take one of the two away");
}

void take_misspelt(const Node& node, Meant& meant) {
  if (home_of(node.key.text) != Context::kUnknown) return;
  meant.insert(nearest_word(node.key.text, words_of(node.context)));
}

class Maker {
 public:
  explicit Maker(Findings& findings) : findings_(findings) {}

  View make(const std::vector<Node>& nodes) {
    for (const Node& section : nodes) {
      if (section.keyword == nullptr || !section.is_block) continue;
      if (section.key.text == "options") take_options(section);
      if (section.key.text == "rule") take_rule(section);
      if (section.key.text != "health") continue;
      for (const Node& node : section.children) {
        if (node.keyword != nullptr && node.is_block && !node.value.empty()) take_interface(node);
      }
    }
    for (RuleView& rule : view_.rules) settle_family(rule);
    return std::move(view_);
  }

 private:
  void take_options(const Node& section) {
    Options& options = view_.options;
    for (const Node& node : section.children) {
      if (node.is_block) continue;
      const auto is = [&node](const char* key, const char* value) {
        return node.key.text == key && node.value == value;
      };
      if (is("routing-daemon", "bird2")) options.bird2_routes = true;
      if (is("discovery", "linux")) options.linux_discovery = true;
      if (is("replies", "wire")) options.wire_replies = true;
      if (is("keep-last-routes", "")) options.keeps_last_routes = true;
    }
  }

  void set(Settings& settings, const Node& node) {
    const Setting setting{node.value, node.place(), node.value_place};
    const auto [entry, is_new] = settings.try_emplace(node.key.text, setting);
    if (is_new) return;
    if (node.keyword->value != ValueKind::kNone) {
      tell_twice(node.place(), "'" + node.key.text + "'",
                 node.key.text == "type" ? "the daemon keeps the first of one test"
                                         : "the daemon takes the last one",
                 findings_);
    }
    entry->second = setting;
  }

  void take_interface(const Node& node) {
    const bool ipv6 = node.key.text == "interface6";
    auto& interfaces = view_.interfaces;
    auto found = std::find_if(interfaces.begin(), interfaces.end(), [&](const auto& interface) {
      return interface.name == node.value && interface.ipv6 == ipv6;
    });
    if (found == interfaces.end()) {
      found =
          interfaces.insert(found, {node.value, ipv6, node.place(), node.value_place, {}, {}, {}});
    } else {
      tell_twice(node.place(), found->label(), "the daemon puts both blocks together", findings_);
    }
    for (const Node& child : node.children) {
      if (child.keyword == nullptr) {
        take_misspelt(child, found->meant);
        continue;
      }
      if (child.key.text != "test") {
        if (!child.is_block) set(found->settings, child);
      } else if (child.is_block) {
        take_test(child, *found);
      }
    }
  }

  void take_test(const Node& node, InterfaceView& interface) {
    TestView test{node.place(), static_cast<int32_t>(read_number(node.value).value), {}, {}};
    bool has_type = false;
    const auto take = [&](const Node& child) {
      if (child.keyword == nullptr) return take_misspelt(child, test.meant);
      if (child.key.text == "type") {
        has_type = true;
      } else if (!has_type && has_type_later(node)) {
        findings_.add(child.place(), "too-early",
                      fmt::format("'{}' stands before the type of its test: the daemon takes it "
                                  "for the test that was read before, if there is one",
                                  child.key.text),
                      "make 'type' the first line of the test");
      }
      set(test.settings, child);
    };
    for (const Node& child : node.children) {
      take(child);
      if (child.keyword == nullptr || child.key.text != "type" || !child.is_block) continue;
      for (const Node& inner : child.children) take(inner);
    }
    interface.tests.push_back(std::move(test));
  }

  static bool has_type_later(const Node& node) {
    return std::any_of(node.children.begin(), node.children.end(),
                       [](const Node& child) { return child.key.text == "type"; });
  }

  void take_rule(const Node& node) {
    auto& rules = view_.rules;
    auto found = std::find_if(rules.begin(), rules.end(),
                              [&](const RuleView& rule) { return rule.name == node.value; });
    if (found == rules.end()) {
      RuleView rule;
      rule.name = node.value;
      rule.place = node.place();
      rule.name_place = node.value_place;
      found = rules.insert(found, std::move(rule));
    } else {
      tell_twice(node.place(), "rule " + node.value, "the daemon puts both blocks together",
                 findings_);
    }
    for (const Node& child : node.children) {
      if (child.keyword == nullptr) {
        take_misspelt(child, found->meant);
        continue;
      }
      const std::string& key = child.key.text;
      if (child.keyword->must_open != child.is_block) continue;
      if (key == "failover") found->failover = true;
      if (key == "namespace") {
        if (found->vrf_setting) {
          tell_twice(child.place(), "'namespace'", "the daemon takes the last one", findings_);
        }
        found->vrf_setting = Setting{child.value, child.place(), child.value_place};
      }
      if (key == "target") take_target(child, *found);
      if ((key == "interface" || key == "interface6") && !child.value.empty()) {
        take_member(child, *found);
      }
    }
  }

  void take_member(const Node& node, RuleView& rule) {
    const bool ipv6 = node.key.text == "interface6";
    auto found = std::find_if(rule.members.begin(), rule.members.end(),
                              [&](const MemberView& member) { return member.name == node.value; });
    if (found == rule.members.end()) {
      found = rule.members.insert(
          found, {node.value, ipv6, node.place(), node.value_place, std::nullopt, {}});
    } else if (found->ipv6 != ipv6) {
      rule.lost.push_back({node.value, ipv6, node.place(), node.value_place, std::nullopt, {}});
    } else {
      tell_twice(node.place(), "the rule's interface " + node.value,
                 "the daemon takes the last weight", findings_);
    }
    for (const Node& child : node.children) {
      if (child.keyword == nullptr) {
        take_misspelt(child, found->meant);
        continue;
      }
      if (found->weight && !(found->weight->key < node.place())) {
        tell_twice(child.place(), "'weight'", "the daemon takes the last one", findings_);
      }
      found->weight = Setting{child.value, child.place(), child.value_place};
    }
  }

  void take_target(const Node& node, RuleView& rule) {
    DestinationView* current = nullptr;
    for (const Node& child : node.children) {
      if (child.keyword == nullptr) {
        take_misspelt(child, rule.meant);
        continue;
      }
      if (child.key.text == "address") {
        if (child.value.empty()) continue;
        current = &rule.destinations.emplace_back(
            DestinationView{child.value, child.value_place, std::nullopt});
      } else if (current == nullptr) {
        findings_.add(child.place(), "too-early",
                      "'metric' stands before the address of its target: the daemon takes it for "
                      "the destination that was read before, if there is one",
                      "write 'address' first");
      } else {
        if (current->metric) {
          tell_twice(child.place(), "'metric'", "the daemon takes the last one", findings_);
        }
        current->metric = Setting{child.value, child.place(), child.value_place};
      }
    }
  }

  static void settle_family(RuleView& rule) {
    const std::string& name = rule.name;
    const size_t digits = name.find_first_not_of("0123456789");
    const std::string rest = digits == std::string::npos ? "" : name.substr(digits);
    rule.is_number_ipv = digits != 0 && (rest == "_ipv4" || rest == "_ipv6");
    rule.ipv6 = rule.is_number_ipv || rule.members.empty() ? !is_ipv4_rule(name)
                                                           : rule.members.front().ipv6;
  }

  Findings& findings_;
  View view_;
};

}  // namespace

const Setting* TestView::find(const std::string& key) const { return find_in(settings, key); }

std::string TestView::type() const {
  const Setting* const setting = find("type");
  return setting == nullptr ? std::string() : setting->value;
}

int64_t TestView::number(const std::string& key, int64_t otherwise) const {
  const Setting* const setting = find(key);
  return setting == nullptr ? otherwise : read_number(setting->value).value;
}

const Setting* InterfaceView::find(const std::string& key) const { return find_in(settings, key); }

std::string InterfaceView::value(const std::string& key) const {
  const Setting* const setting = find(key);
  return setting == nullptr ? std::string() : setting->value;
}

std::string InterfaceView::origin() const {
  return find("origin") == nullptr ? name : value("origin");
}

Place InterfaceView::origin_place() const {
  const Setting* const setting = find("origin");
  return setting == nullptr ? name_place : setting->place;
}

std::string InterfaceView::vrf() const {
  return find("namespace") == nullptr ? kDefaultNamespace : value("namespace");
}

std::string InterfaceView::label() const {
  return fmt::format("interface{} {}", ipv6 ? "6" : "", name);
}

int64_t MemberView::weight_number() const {
  const int64_t number = weight ? read_number(weight->value).value : 0;
  return number < 1 || number > INT32_MAX ? 0 : number;
}

bool RuleView::has_members(bool of_ipv6) const {
  return std::any_of(members.begin(), members.end(),
                     [of_ipv6](const MemberView& member) { return member.ipv6 == of_ipv6; });
}

const InterfaceView* View::find(const std::string& name, bool ipv6) const {
  const auto found = std::find_if(interfaces.begin(), interfaces.end(), [&](const auto& interface) {
    return interface.name == name && interface.ipv6 == ipv6;
  });
  return found == interfaces.end() ? nullptr : &*found;
}

View make_view(const std::vector<Node>& nodes, Findings& findings) {
  return Maker(findings).make(nodes);
}

}  // namespace lbctl
