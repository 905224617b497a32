// What the daemon makes of a configuration: routes, reports, dump records.
#pragma once

#include <algorithm>
#include <cstring>
#include <set>
#include <string>

#include "config/lb_config.h"
#include "config/tokens.h"
#include "output/dump_records.h"
#include "output/status_report.h"
#include "routing/static_routes.h"
#include "support/property.h"

// A dump record's field holds the text or its beginning, then zeros.
template <size_t kSize>
void check_field(const char (&field)[kSize], const std::string& text) {
  const size_t length = strnlen(field, kSize);
  HOLDS(length < kSize);
  HOLDS(text.compare(0, length, field) == 0);
  HOLDS(length == text.size() || length + 1 == kSize || length == 15 || length == 18);
  HOLDS(std::all_of(field + length, field + kSize, [](char c) { return c == '\0'; }));
}

inline size_t count_of(const std::string& text, const std::string& piece) {
  size_t count = 0;
  for (size_t at = 0; (at = text.find(piece, at)) != std::string::npos; at += piece.size()) ++count;
  return count;
}

// Gives every interface a state, taken from its settings.
inline void bring_up(LBInterface& interface) {
  const bool up = interface.failure_ct % 2 != 0;
  const int32_t time = interface.success_ct == 3 ? 0 : interface.success_ct;
  const std::string found = interface.success_ct == 4 ? "" : "192.0.2.1";
  MutexLock lock(interface.mutex);
  interface.state.active = up;
  interface.state.last_success = time;
  interface.state.last_failure = interface.failure_ct;
  interface.state.last_state_change = time;
  if (interface.discovers_nexthop()) interface.state.nexthop_address = found;
}

// One route line per destination at most, one protocol block per line.
inline void check_routes(const LBConfig& config, bool ipv6, const std::string& vrf) {
  const StaticRoutes routes = build_static_routes(config, ipv6, vrf);
  size_t destinations = 0;
  for (const auto& [name, rule] : config.rules) {
    if (rule.vrf == vrf) destinations += rule.targets.size();
  }
  const auto lines = static_cast<size_t>(std::count(routes.body.begin(), routes.body.end(), '\n'));
  HOLDS(lines <= destinations);
  for (size_t start = 0; start < routes.body.size();) {
    const size_t end = routes.body.find('\n', start);
    HOLDS(end != std::string::npos);
    const std::string line = routes.body.substr(start, end - start);
    HOLDS(line.starts_with("route ") && line.ends_with(";"));
    HOLDS(line.find(" via ") != std::string::npos && line.find(" weight ") != std::string::npos);
    start = end + 1;
  }
  for (const auto& [name, nexthops] : routes.failover_nexthops) {
    const LBRule& rule = config.rules.at(name);
    HOLDS(rule.failover == 1 && rule.vrf == vrf);
    for (const auto& [prefix, nexthop] : nexthops) HOLDS(rule.targets.contains(prefix));
  }
  const std::string text = protocol_static_text(routes.body, ipv6);
  HOLDS(count_of(text, "protocol static {\n") >= lines);
  HOLDS(static_cast<size_t>(std::count(text.begin(), text.end(), '\n')) == lines * 5);
}

inline void check_interface(const LBInterface& interface) {
  const uint32_t now = 1'700'000'000;
  const InterfaceSnapshot snapshot = take_snapshot(interface);
  const std::string block = interface_block(snapshot, now);
  const auto lines = static_cast<size_t>(std::count(block.begin(), block.end(), '\n'));
  HOLDS(lines == 6 + snapshot.tests.size());
  HOLDS(block.starts_with("Interface:  " + interface.name + "\n") && block.ends_with("\n\n"));

  DumpOutbound record{};
  HOLDS(fill_outbound(snapshot, now, record));
  check_field(record.name, interface.name);
  check_field(record.vrf, interface.vrf);
  check_field(record.nexthop, interface.gateway());
  if (record.source_address[0] != '\0')
    check_field(record.source_address, interface.source_address);
  HOLDS(record.test_count == std::min(snapshot.tests.size(), kDumpMaxTests));
  for (size_t i = 0; i < record.test_count; ++i) {
    const std::string& target = snapshot.tests[i].target;
    check_field(record.tests[i].target, target.empty() ? interface.gateway() : target);
    HOLDS(record.tests[i].ipv6 == (interface.ipv6 ? 1 : 0));
  }
  HOLDS(record.success_ct == interface.success_ct && record.failure_ct == interface.failure_ct);
}

inline void check_rule(const std::string& name, const LBRule& rule, const LBConfig& config) {
  const auto key = parse_rule_key(name);
  if (!key) return;
  HOLDS(key->number == static_cast<int32_t>(parse_unsigned(name)));
  HOLDS(name.find("_ipv") != std::string::npos);
  DumpRule record{};
  HOLDS(fill_rule(*key, rule, config, record));
  check_field(record.vrf, rule.vrf);
  HOLDS(record.number == key->number && record.failover == rule.failover);
  HOLDS(record.member_count == std::min(rule.members.size(), kDumpMaxMembers));
  size_t i = 0;
  for (const auto& [member, settings] : rule.members) {
    if (i == record.member_count) break;
    const InterfaceMap& interfaces = config.interfaces_of(settings.ipv6);
    const auto found = interfaces.find(member);
    const bool has_origin = found != interfaces.end() && !found->second.origin.empty();
    check_field(record.members[i].name, has_origin ? found->second.origin : member);
    HOLDS(record.members[i].weight == settings.weight % 256);
    ++i;
  }
  for (const auto& [prefix, target] : rule.targets) {
    DumpRoute route{};
    HOLDS(fill_route(*key, prefix, target, 1, "2001:db8::1", route));
    check_field(route.destination, prefix);
    check_field(route.nexthop, "2001:db8::1");
    HOLDS(route.metric == target.metric && route.rule_number == key->number);
  }
}

inline void use_config(LBConfig& config, const std::set<std::string>& vrfs) {
  for (const bool ipv6 : {false, true}) {
    for (auto& [name, interface] : config.interfaces_of(ipv6)) {
      bring_up(interface);
      check_interface(interface);
    }
    for (const std::string& vrf : vrfs) check_routes(config, ipv6, vrf);
  }
  for (const auto& [name, rule] : config.rules) check_rule(name, rule, config);
}
