#include "output/dump_records.h"

#include <algorithm>
#include <cstdio>

#include "routing/interface_health.h"

namespace {

// What an IPv4 text takes at most of a field that an IPv6 text fits in.
constexpr size_t kIpv4AddressSize = 16;
constexpr size_t kIpv4PrefixSize = 19;

template <size_t kSize>
bool put_text(char (&field)[kSize], const std::string& text, size_t limit = kSize) {
  return snprintf(field, limit, "%s", text.c_str()) >= 0;
}

bool put_address(char (&field)[kDumpAddressSize], const std::string& text, bool ipv6) {
  return put_text(field, text, ipv6 ? kDumpAddressSize : kIpv4AddressSize);
}

int32_t age(int32_t stamp, uint32_t now) {
  return stamp == 0 ? 0 : static_cast<int32_t>(now - static_cast<uint32_t>(stamp));
}

bool fill_test(const InterfaceSnapshot& interface, const TestReport& test, DumpTest& entry) {
  const bool ipv6 = interface.settings.ipv6;
  const std::string& target = test.target.empty() ? interface.nexthop() : test.target;
  if (!put_address(entry.target, target, ipv6)) return false;
  entry.success_count = success_count(interface.state, target);
  entry.failure_count = failure_count(interface.state, target);
  entry.result = static_cast<uint8_t>(test.result);
  entry.resp_time = static_cast<uint8_t>(test.resp_time);
  entry.ipv6 = ipv6 ? 1 : 0;
  if (!ipv6 && test.measurement) {
    entry.has_measurement = 1;
    entry.measured_jitter = test.measurement->measured_jitter;
    entry.measured_loss = test.measurement->measured_loss;
    entry.measured_rtt = test.measurement->measured_rtt;
    entry.jitter = test.measurement->jitter;
    entry.loss = test.measurement->loss;
    entry.rtt = test.measurement->rtt;
  }
  return true;
}

std::string member_name(const std::string& name, const LBRuleInterface& member,
                        const LBConfig& names) {
  const std::string origin = interface_origin(names, name, member.ipv6);
  return origin.empty() ? name : origin;
}

}  // namespace

std::optional<RuleKey> parse_rule_key(const std::string& rule_name) {
  RuleKey key;
  if (sscanf(rule_name.c_str(), "%d_ipv%d", &key.number, &key.version) != 2) return std::nullopt;
  return key;
}

bool fill_outbound(const InterfaceSnapshot& interface, uint32_t now, DumpOutbound& record) {
  const LBInterface& settings = interface.settings;
  if (!put_text(record.name, settings.name) || !put_text(record.vrf, settings.vrf) ||
      !put_address(record.nexthop, interface.nexthop(), settings.ipv6)) {
    return false;
  }
  // The unspecified address says as little as none, and so does the word for one of the moment.
  const bool has_source = !settings.source_address.empty() && settings.source_address != "auto" &&
                          !(settings.ipv6 && settings.source_address == "::");
  if (has_source && !put_address(record.source_address, settings.source_address, settings.ipv6)) {
    return false;
  }
  const size_t count = std::min(interface.tests.size(), kDumpMaxTests);
  for (size_t i = 0; i < count; ++i) {
    if (!fill_test(interface, interface.tests[i], record.tests[i])) return false;
  }
  record.test_count = static_cast<uint8_t>(count);
  record.success_age = age(interface.state.last_success, now);
  record.failure_age = age(interface.state.last_failure, now);
  record.change_age = age(interface.state.last_state_change, now);
  record.success_ct = settings.success_ct;
  record.failure_ct = settings.failure_ct;
  record.nexthop_is_dhcp = settings.nexthop == "dhcp" ? 1 : 0;
  record.nexthop_is_tunnel = settings.nexthop == "tunnel" ? 1 : 0;
  record.active = interface.state.active ? 1 : 0;
  return true;
}

bool fill_rule(const RuleKey& key, const LBRule& rule, const LBConfig& names, DumpRule& record) {
  for (const auto& [name, member] : rule.members) {
    if (record.member_count == kDumpMaxMembers) break;
    DumpRuleMember& entry = record.members[record.member_count];
    if (!put_text(entry.name, member_name(name, member, names))) return false;
    entry.weight = static_cast<uint8_t>(member.weight);
    entry.ipv6 = member.ipv6 ? 1 : 0;
    ++record.member_count;
  }
  if (!put_text(record.vrf, rule.vrf)) return false;
  record.number = key.number;
  record.failover = static_cast<uint8_t>(rule.failover);
  record.ipv6 = key.is_ipv6() ? 1 : 0;
  return true;
}

bool fill_route(const RuleKey& key, const std::string& destination, const LBTarget& target,
                int32_t index, const std::string& nexthop, DumpRoute& record) {
  const size_t prefix_size = key.is_ipv6() ? kDumpPrefixSize : kIpv4PrefixSize;
  if (!put_text(record.destination, destination, prefix_size)) return false;
  if (!nexthop.empty() && !put_address(record.nexthop, nexthop, key.is_ipv6())) return false;
  record.metric = target.metric;
  record.index = index;
  record.rule_number = key.number;
  record.ipv6 = key.is_ipv6() ? 1 : 0;
  return true;
}
