// The records of the binary dump files, for every program that reads them.
//
// The files are in the directory wlb_dump below the daemon's output directory. Each is a plain
// sequence of records of one kind, without header or end mark:
//
//   wlb_ipv4_outbounds.bin, wlb_ipv6_outbounds.bin   DumpOutbound, one per interface
//   wlb_rules.bin                                    DumpRule, one per rule
//   wlb_routes.bin                                   DumpRoute, the routes of all rules
//
// Numbers are in the byte order of the host that wrote them. A text field is a C string: it always
// ends in a NUL byte and the rest of the field is zero; a text that is too long is cut. Records are
// packed, so a number may stand at an odd address: copy a record before you read it. The files are
// written anew every cycle, in place: a reader that finds a part of a record tries again.
#pragma once

#include <cstddef>
#include <cstdint>

inline constexpr size_t kDumpMaxTests = 50;
inline constexpr size_t kDumpMaxMembers = 50;
inline constexpr size_t kDumpMaxRoutes = 50;

inline constexpr size_t kDumpNameSize = 64;
inline constexpr size_t kDumpVrfSize = 32;
inline constexpr size_t kDumpAddressSize = 46;  // an IPv6 address as text
inline constexpr size_t kDumpPrefixSize = 50;   // an IPv6 prefix as text

#pragma pack(push, 1)

// One health test of an interface.
struct DumpTest {
  char target[kDumpAddressSize];  // the next hop while the test has no target of its own
  int32_t success_count;          // consecutive results, capped at the interface's thresholds
  int32_t failure_count;
  uint8_t result;           // 0 none yet, 1 success, 2 failure
  uint8_t has_measurement;  // 1: the six numbers at the end are valid
  uint8_t resp_time;        // milliseconds, the low byte only
  uint8_t ipv6;
  // The last complete burst of an extended ping test, then the limits that it was judged by.
  int32_t measured_jitter;  // milliseconds
  int32_t measured_loss;    // percent
  int32_t measured_rtt;     // milliseconds
  int32_t jitter;
  int32_t loss;
  int32_t rtt;
};

// One interface of the health section, in the order of the names.
struct DumpOutbound {
  char name[kDumpNameSize];  // as configured
  char vrf[kDumpVrfSize];
  char nexthop[kDumpAddressSize];  // in force: configured or found; empty while there is none
  char source_address[kDumpAddressSize];
  DumpTest tests[kDumpMaxTests];
  uint8_t test_count;
  int32_t success_age;  // seconds since the last healthy evaluation; 0 also for never
  int32_t failure_age;  // the same for the last unhealthy one
  int32_t change_age;   // the same for the last change of the state
  int32_t success_ct;   // configured thresholds
  int32_t failure_ct;
  uint8_t nexthop_is_dhcp;
  uint8_t nexthop_is_tunnel;
  uint8_t active;
};

// One interface that carries a rule.
struct DumpRuleMember {
  char name[kDumpNameSize];  // its Linux name
  uint8_t weight;            // the low byte only
  uint8_t ipv6;
};

// One rule, in the order of the rule names ("10_ipv4" comes before "2_ipv4").
struct DumpRule {
  DumpRuleMember members[kDumpMaxMembers];
  uint8_t member_count;
  char vrf[kDumpVrfSize];
  int32_t reserved;  // 0
  int32_t number;
  uint8_t failover;
  uint8_t ipv6;
};

// One destination of a rule.
struct DumpRoute {
  char destination[kDumpPrefixSize];
  char nexthop[kDumpAddressSize];  // what a failover rule has chosen; empty otherwise
  int32_t metric;                  // -1: none
  int32_t index;                   // within the rule, from 1
  int32_t rule_number;
  uint8_t ipv6;
};

#pragma pack(pop)

static_assert(sizeof(DumpTest) == 82);
static_assert(offsetof(DumpTest, success_count) == 46);
static_assert(offsetof(DumpTest, failure_count) == 50);
static_assert(offsetof(DumpTest, result) == 54);
static_assert(offsetof(DumpTest, has_measurement) == 55);
static_assert(offsetof(DumpTest, resp_time) == 56);
static_assert(offsetof(DumpTest, ipv6) == 57);
static_assert(offsetof(DumpTest, measured_jitter) == 58);

static_assert(sizeof(DumpOutbound) == 4312);
static_assert(offsetof(DumpOutbound, vrf) == 64);
static_assert(offsetof(DumpOutbound, nexthop) == 96);
static_assert(offsetof(DumpOutbound, source_address) == 142);
static_assert(offsetof(DumpOutbound, tests) == 188);
static_assert(offsetof(DumpOutbound, test_count) == 4288);
static_assert(offsetof(DumpOutbound, success_age) == 4289);
static_assert(offsetof(DumpOutbound, failure_age) == 4293);
static_assert(offsetof(DumpOutbound, change_age) == 4297);
static_assert(offsetof(DumpOutbound, success_ct) == 4301);
static_assert(offsetof(DumpOutbound, failure_ct) == 4305);
static_assert(offsetof(DumpOutbound, nexthop_is_dhcp) == 4309);
static_assert(offsetof(DumpOutbound, nexthop_is_tunnel) == 4310);
static_assert(offsetof(DumpOutbound, active) == 4311);

static_assert(sizeof(DumpRuleMember) == 66);
static_assert(offsetof(DumpRuleMember, weight) == 64);
static_assert(offsetof(DumpRuleMember, ipv6) == 65);

static_assert(sizeof(DumpRule) == 3343);
static_assert(offsetof(DumpRule, member_count) == 3300);
static_assert(offsetof(DumpRule, vrf) == 3301);
static_assert(offsetof(DumpRule, reserved) == 3333);
static_assert(offsetof(DumpRule, number) == 3337);
static_assert(offsetof(DumpRule, failover) == 3341);
static_assert(offsetof(DumpRule, ipv6) == 3342);

static_assert(sizeof(DumpRoute) == 109);
static_assert(offsetof(DumpRoute, nexthop) == 50);
static_assert(offsetof(DumpRoute, metric) == 96);
static_assert(offsetof(DumpRoute, index) == 100);
static_assert(offsetof(DumpRoute, rule_number) == 104);
static_assert(offsetof(DumpRoute, ipv6) == 108);
