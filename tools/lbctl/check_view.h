// A configuration's interfaces and rules with the places where they are said: what the daemon's
// model has, put together in the same way.
#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "config/options.h"
#include "lbctl/check_outline.h"
#include "lbctl/check_values.h"
#include "platform/places.h"

namespace lbctl {

struct Setting {
  std::string value;
  Place key;
  Place place;  // of the value
};

using Settings = std::map<std::string, Setting>;

// Keywords of a block that are misspelt in it: that they are missing has the same cause.
using Meant = std::set<std::string>;

struct TestView {
  Place place;
  int32_t index = 0;
  Settings settings;  // "type" and "target" too
  Meant meant;

  const Setting* find(const std::string& key) const;
  std::string type() const;  // empty: none
  // The number in force, or `otherwise` where none is given.
  int64_t number(const std::string& key, int64_t otherwise) const;
};

struct InterfaceView {
  std::string name;
  bool ipv6 = false;
  Place place;  // of the keyword
  Place name_place;
  Settings settings;
  std::vector<TestView> tests;
  Meant meant;

  const Setting* find(const std::string& key) const;
  std::string value(const std::string& key) const;
  std::string origin() const;
  Place origin_place() const;
  std::string vrf() const;
  std::string label() const;  // "interface wan1"
};

struct MemberView {
  std::string name;
  bool ipv6 = false;
  Place place;
  Place name_place;
  std::optional<Setting> weight;
  Meant meant;

  // As the daemon takes it: 0 carries nothing.
  int64_t weight_number() const;
};

struct DestinationView {
  std::string text;
  Place place;
  std::optional<Setting> metric;
};

struct RuleView {
  std::string name;
  bool ipv6 = false;           // of a name that tells none: as its members are
  bool is_number_ipv = false;  // NUMBER_ipv4 or NUMBER_ipv6
  Place place;
  Place name_place;
  bool failover = false;
  std::optional<Setting> vrf_setting;
  std::vector<MemberView> members;
  // That have the name of a member of the other family: the daemon takes them for that one.
  std::vector<MemberView> lost;
  std::vector<DestinationView> destinations;
  Meant meant;

  std::string vrf() const { return vrf_setting ? vrf_setting->value : kDefaultNamespace; }
  bool has_members(bool of_ipv6) const;
};

struct View {
  Options options;
  std::vector<InterfaceView> interfaces;
  std::vector<RuleView> rules;

  const InterfaceView* find(const std::string& name, bool ipv6) const;
};

// Tells of what is said twice, and too early, on the way.
View make_view(const std::vector<Node>& nodes, Findings& findings);

}  // namespace lbctl
