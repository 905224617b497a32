// The dump files of a running daemon, as values.
#pragma once

#include <array>
#include <cstdint>
#include <ctime>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include "lbctl/families.h"

namespace lbctl {

struct TestDump {
  // Milliseconds and percent: of the last complete burst, then the limits it was judged by.
  struct Measurement {
    int32_t measured_jitter, measured_loss, measured_rtt;
    int32_t jitter, loss, rtt;
  };

  std::string target;
  int32_t success_count = 0;
  int32_t failure_count = 0;
  int32_t result = 0;  // TestResult of config/health_test.h
  std::optional<Measurement> measurement;
};

struct InterfaceDump {
  std::string name;
  bool ipv6 = false;
  std::string vrf;
  std::string nexthop;  // empty while there is none
  std::string source_address;
  std::vector<TestDump> tests;
  int32_t success_age = 0;  // seconds; 0 also for never
  int32_t failure_age = 0;
  int32_t change_age = 0;
  int32_t success_ct = 0;
  int32_t failure_ct = 0;
  bool nexthop_is_dhcp = false;
  bool nexthop_is_tunnel = false;
  bool active = false;

  // False before the daemon's first look at it, and where it never looks: without a rule of that
  // VRF and family, or without the namespace. Its ages are 0 then, and its state is the first one.
  bool was_looked_at() const;
};

struct MemberDump {
  std::string device;  // Linux name
  uint8_t weight = 0;  // the low byte only
  bool ipv6 = false;
};

struct RouteDump {
  std::string destination;
  std::string nexthop;  // what a failover rule has chosen; empty otherwise
  int32_t metric = -1;  // -1: none
  int32_t index = 0;    // within the rule, from 1
};

struct RuleDump {
  int32_t number = 0;
  bool ipv6 = false;
  std::string vrf;
  bool failover = false;
  std::vector<MemberDump> members;
  std::vector<RouteDump> routes;
};

struct Dumps {
  std::vector<InterfaceDump> interfaces;  // IPv4, then IPv6; by name
  std::vector<RuleDump> rules;            // in the file's order
  std::timespec newest{};                 // when the newest file was written, wall clock

  // Whether nothing was written for longer than a running daemon takes.
  bool is_stale(std::time_t now) const;
};

// Seconds after which files are old: a cycle takes little more than one, a slow burst some more.
inline constexpr int kStaleAge = 10;

// The files in `output_directory`/wlb_dump. A file that is caught half written is read again, for a
// second at most. A family without a file has no interfaces. A Failure (kExitUnreadable) that names
// the file when there is none at all, one cannot be read, or one is not what this host's daemon
// writes. Of the families that are not wanted no interfaces are read.
Dumps read_dumps(const std::string& output_directory, const Families& families = {});

// The files that read_dumps() looks at, whether they are there or not.
std::vector<std::string> dump_paths(const std::string& output_directory);

// The records in a file's bytes. An error text (for behind the file's name) when they are none:
// truncated, foreign, or of a host of the other byte order. No file is touched.
template <class Value>
struct Parsed {
  std::vector<Value> values;
  std::string error;  // empty: the values are complete
};
struct RouteOfRule {
  RouteDump route;
  int32_t rule_number = 0;
  bool ipv6 = false;
};
Parsed<InterfaceDump> parse_outbounds(std::span<const uint8_t> bytes, bool ipv6);
Parsed<RuleDump> parse_rules(std::span<const uint8_t> bytes);
Parsed<RouteOfRule> parse_routes(std::span<const uint8_t> bytes);

// Puts each route into its rule.
void join_routes(std::vector<RuleDump>& rules, std::vector<RouteOfRule> routes);

}  // namespace lbctl
