// From the bytes of a dump file to values. Nothing of a record is believed before it is looked at:
// the file may be anything.
#include <algorithm>
#include <bit>
#include <cstring>
#include <optional>
#include <string_view>
#include <utility>

#include <fmt/format.h>

#include "config/health_test.h"
#include "lbctl/dumps.h"
#include "output/dump_format.h"

namespace lbctl {

namespace {

constexpr const char* kForeign = "not a dump file of the daemon";
constexpr const char* kOtherByteOrder = "written on a host of the other byte order";

int32_t swapped(int32_t value) {
  return static_cast<int32_t>(__builtin_bswap32(static_cast<uint32_t>(value)));
}

// Ages are below 0 after the clock was set back. By value: the record's numbers stand at odd
// addresses.
int32_t not_negative(int32_t age) { return std::max(age, 0); }

// A number of which the daemon only writes those from 1 to `most`, and its like in the other byte
// order.
enum class Order { kOurs, kOther, kNeither };
Order order_of(int32_t value, int32_t most) {
  if (value >= 1 && value <= most) return Order::kOurs;
  const int32_t other = swapped(value);
  return other >= 1 && other <= most ? Order::kOther : Order::kNeither;
}

// Takes the fields of one record, and notes what is wrong with the first wrong one.
class RecordReader {
 public:
  template <size_t kSize>
  std::string text(const char (&field)[kSize]) {
    const auto* end = std::find(std::begin(field), std::end(field), '\0');
    if (end == std::end(field)) fail(kForeign);
    return {std::begin(field), end};
  }

  bool flag(uint8_t value) { return number(value, 1) == 1; }

  // A number from 0 to `most`.
  int number(uint8_t value, int most) {
    if (value <= most) return value;
    fail(kForeign);
    return 0;
  }

  // Any number from 1. A large one may be a small one of the other byte order: the whole file
  // tells.
  void positive(int32_t value) {
    constexpr int32_t kLarge = 1 << 24;
    constexpr int32_t kSmall = 1 << 16;
    const bool other = swapped(value) >= 1 && swapped(value) < kSmall;
    if (value < 1) fail(other ? kOtherByteOrder : kForeign);
    if (value >= kLarge && other) {
      ++doubtful_;
    } else {
      ++sure_;
    }
  }

  // Whether numbers were met, and each of them was more likely one of the other byte order.
  bool is_of_other_order() const { return doubtful_ > 0 && sure_ == 0; }

  // A number that tells the byte order.
  void ordered(int32_t value, int32_t most) {
    const Order order = order_of(value, most);
    if (order == Order::kOther) fail(kOtherByteOrder);
    if (order == Order::kNeither) fail(kForeign);
  }

  void fail(const char* fault) {
    if (fault_ == nullptr) fault_ = fault;
  }
  const char* fault() const { return fault_; }

 private:
  const char* fault_ = nullptr;
  size_t doubtful_ = 0;
  size_t sure_ = 0;
};

TestDump test_of(const DumpTest& record, bool ipv6, RecordReader& reader) {
  TestDump test;
  test.target = reader.text(record.target);
  test.success_count = record.success_count;
  test.failure_count = record.failure_count;
  test.result = reader.number(record.result, kResultFailure);
  if (reader.flag(record.ipv6) != ipv6) reader.fail(kForeign);
  if (reader.flag(record.has_measurement)) {
    test.measurement =
        TestDump::Measurement{record.measured_jitter, record.measured_loss, record.measured_rtt,
                              record.jitter,          record.loss,          record.rtt};
  }
  return test;
}

InterfaceDump interface_of(const DumpOutbound& record, bool ipv6, RecordReader& reader) {
  reader.positive(record.success_ct);
  reader.positive(record.failure_ct);
  InterfaceDump interface;
  interface.ipv6 = ipv6;
  interface.name = reader.text(record.name);
  interface.vrf = reader.text(record.vrf);
  interface.nexthop = reader.text(record.nexthop);
  interface.source_address = reader.text(record.source_address);
  const int count = reader.number(record.test_count, kDumpMaxTests);
  for (int at = 0; at < count; ++at)
    interface.tests.push_back(test_of(record.tests[at], ipv6, reader));
  interface.success_age = not_negative(record.success_age);
  interface.failure_age = not_negative(record.failure_age);
  interface.change_age = not_negative(record.change_age);
  interface.success_ct = record.success_ct;
  interface.failure_ct = record.failure_ct;
  interface.nexthop_is_dhcp = reader.flag(record.nexthop_is_dhcp);
  interface.nexthop_is_tunnel = reader.flag(record.nexthop_is_tunnel);
  interface.active = reader.flag(record.active);
  if (interface.name.empty()) reader.fail(kForeign);
  return interface;
}

RuleDump rule_of(const DumpRule& record, RecordReader& reader) {
  reader.positive(record.number);
  if (record.reserved != 0) reader.fail(kForeign);
  RuleDump rule;
  rule.number = record.number;
  rule.ipv6 = reader.flag(record.ipv6);
  rule.failover = reader.flag(record.failover);
  rule.vrf = reader.text(record.vrf);
  const int count = reader.number(record.member_count, kDumpMaxMembers);
  for (int at = 0; at < count; ++at) {
    const DumpRuleMember& member = record.members[at];
    rule.members.push_back({reader.text(member.name), member.weight, reader.flag(member.ipv6)});
  }
  return rule;
}

RouteOfRule route_of(const DumpRoute& record, RecordReader& reader) {
  reader.ordered(record.index, kDumpMaxRoutes);
  if (record.rule_number < 1) reader.fail(kForeign);  // the index has told the byte order
  RouteOfRule route;
  route.route.destination = reader.text(record.destination);
  route.route.nexthop = reader.text(record.nexthop);
  route.route.metric = record.metric;
  route.route.index = record.index;
  route.rule_number = record.rule_number;
  route.ipv6 = reader.flag(record.ipv6);
  return route;
}

// All records of one kind; `make(record, reader)` takes one.
template <class Record, class Value, class Make>
Parsed<Value> parse(std::span<const uint8_t> bytes, Make make) {
  Parsed<Value> parsed;
  if (bytes.size() % sizeof(Record) != 0) {
    parsed.error =
        fmt::format("truncated or foreign: {} bytes are no whole number of records of {}",
                    bytes.size(), sizeof(Record));
    return parsed;
  }
  RecordReader reader;
  for (size_t at = 0; at < bytes.size(); at += sizeof(Record)) {
    Record record;  // a copy: in the file's bytes its numbers stand at odd addresses
    std::memcpy(&record, bytes.data() + at, sizeof(record));
    Value value = make(record, reader);
    if (reader.fault() != nullptr) {
      parsed.error = fmt::format("{} (record {})", reader.fault(), at / sizeof(Record) + 1);
      parsed.values.clear();
      return parsed;
    }
    parsed.values.push_back(std::move(value));
  }
  if (reader.is_of_other_order()) {
    parsed.error = fmt::format("{} (record 1)", kOtherByteOrder);
    parsed.values.clear();
  }
  return parsed;
}

}  // namespace

Parsed<InterfaceDump> parse_outbounds(std::span<const uint8_t> bytes, bool ipv6) {
  // The daemon writes none without interfaces, so this is one that it could not fill.
  if (bytes.empty()) return {.values = {}, .error = "empty; is the disk full?"};
  return parse<DumpOutbound, InterfaceDump>(
      bytes, [ipv6](const DumpOutbound& record, RecordReader& reader) {
        return interface_of(record, ipv6, reader);
      });
}

Parsed<RuleDump> parse_rules(std::span<const uint8_t> bytes) {
  return parse<DumpRule, RuleDump>(bytes, rule_of);
}

Parsed<RouteOfRule> parse_routes(std::span<const uint8_t> bytes) {
  return parse<DumpRoute, RouteOfRule>(bytes, route_of);
}

void join_routes(std::vector<RuleDump>& rules, std::vector<RouteOfRule> routes) {
  for (RouteOfRule& route : routes) {
    const auto rule = std::find_if(rules.begin(), rules.end(), [&route](const RuleDump& candidate) {
      return candidate.number == route.rule_number && candidate.ipv6 == route.ipv6;
    });
    if (rule != rules.end()) rule->routes.push_back(std::move(route.route));
  }
}

}  // namespace lbctl
