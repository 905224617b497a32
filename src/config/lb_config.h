// The configuration model: rules, the health section's interfaces, and the little that changes at
// run time.
//
// The reader fills one LBConfig, start-up copies it into the active configuration. From then on the
// maps and every field outside the guarded parts are fixed and read by all threads without a lock.
// What changes lives in LBInterface::state (one lock per interface; its worker settles it, workers
// of other VRFs read it for reports, clear its change mark and read its lease) and in what LBConfig
// notes as written (written_mutex, all workers). Neither lock is held over a system call that can
// block.
#pragma once

#include <cstdint>
#include <ctime>
#include <map>
#include <memory>
#include <optional>
#include <set>
#include <string>

#include "config/health_test.h"
#include "config/options.h"
#include "platform/mutex.h"
#include "platform/places.h"

// A destination of a rule; the key in LBRule::targets is the prefix text.
struct LBTarget {
  int32_t metric = -1;  // -1: none
};

// An interface that carries a rule; the key in LBRule::members is its name.
struct LBRuleInterface {
  bool ipv6 = false;
  int32_t weight = 0;
};

struct LBRule {
  int32_t failover = 0;
  std::string vrf = kDefaultNamespace;  // keyword "namespace"
  std::map<std::string, LBTarget> targets;
  std::map<std::string, LBRuleInterface> members;
};

// The family of a rule is part of its name.
inline bool is_ipv4_rule(const std::string& rule_name) {
  return rule_name.find("ipv4") != std::string::npos;
}

// The run-time part of an interface. Times are wall-clock seconds, 0 for never.
struct InterfaceState {
  std::string nexthop_address;
  int32_t last_success = 0;
  int32_t last_failure = 0;
  int32_t last_state_change = 0;
  bool active = false;
  bool state_changed = true;
  std::map<std::string, int32_t> target_results;  // settled result: 0 success, -1 failure
  std::map<std::string, int32_t> success_counts;  // consecutive, capped at success_ct
  std::map<std::string, int32_t> failure_counts;  // consecutive, capped at failure_ct
  std::optional<bool> no_arp;                     // IFF_NOARP, once it was read
  std::optional<timespec> held_since;  // monotonic: last unhealthy evaluation since it failed
};

// What is configured of an interface.
struct InterfaceSettings {
  InterfaceSettings(std::string interface_name, bool is_ipv6)
      : name(std::move(interface_name)), origin(name), ipv6(is_ipv6) {}

  int32_t success_ct = 3;
  int32_t failure_ct = 1;
  std::string nexthop;  // an address, "dhcp", "tunnel" or "kernel"
  std::string name;     // the key of the map
  std::string origin;   // the Linux name: what tests bind to and sockets use
  bool ipv6;
  bool check_all = false;
  std::string source_address;           // an address, "auto", or empty
  std::string vrf = kDefaultNamespace;  // keyword "namespace"
  std::string lease_file;               // empty: where the discovery looks by itself
  int32_t hold_down = 0;                // seconds
  // Of the interface's family, by index. Copies share them.
  std::map<int32_t, std::shared_ptr<HealthTest>> tests;

  // Those of the configuration that the interface stands in; fixed once it is read.
  std::shared_ptr<const Options> options = std::make_shared<const Options>();

  // True when the next hop is found at run time.
  bool discovers_nexthop() const {
    return nexthop == "dhcp" || nexthop == "tunnel" || nexthop == "kernel";
  }

  // True when a test that pings the next hop goes over to another one as soon as that is found;
  // otherwise it keeps the first for good.
  bool follows_nexthop() const {
    return nexthop == "kernel" || (options->linux_discovery && discovers_nexthop());
  }
};

// An interface of the health section. Both maps of LBConfig hold this record.
struct LBInterface : InterfaceSettings {
  using InterfaceSettings::InterfaceSettings;
  LBInterface(const LBInterface& other) LB_EXCLUDES(other.mutex)
      : InterfaceSettings(other), state(other.snapshot()) {}
  LBInterface& operator=(const LBInterface&) = delete;

  mutable Mutex mutex;
  InterfaceState state LB_GUARDED_BY(mutex);

  // A copy of the run-time part.
  InterfaceState snapshot() const LB_EXCLUDES(mutex);

  // The next hop in force: the configured one, or the one found (empty while there is none).
  std::string gateway() const LB_EXCLUDES(mutex);
};

using InterfaceMap = std::map<std::string, LBInterface>;

// What the route decision wrote last.
struct WrittenState {
  using TextByVrf = std::map<std::string, std::string>;
  using TextByTarget = std::map<std::string, std::string>;

  TextByVrf routes_written;
  TextByVrf routes_written6;
  // Per rule name: the next hop that a failover rule chose for each destination.
  std::map<std::string, TextByTarget> failover_nexthops;
};

struct LBConfig {
  LBConfig() = default;
  LBConfig(const LBConfig&) = delete;
  LBConfig& operator=(const LBConfig&) = delete;

  // Takes copies of the maps of `other` in place of its own; options and test objects are shared.
  // Before the threads start only.
  void replace(const LBConfig& other);

  std::map<std::string, LBRule> rules;
  InterfaceMap interfaces;
  InterfaceMap interfaces6;
  std::shared_ptr<Options> options = std::make_shared<Options>();  // its interfaces share it

  InterfaceMap& interfaces_of(bool ipv6) { return ipv6 ? interfaces6 : interfaces; }
  const InterfaceMap& interfaces_of(bool ipv6) const { return ipv6 ? interfaces6 : interfaces; }

  mutable Mutex written_mutex;
  WrittenState written LB_GUARDED_BY(written_mutex);

  // A copy of what was written.
  WrittenState copy_written() const LB_EXCLUDES(written_mutex);
};

// What a VRF has of one family. Start-up fills it; a family is served where both are set.
struct VrfPresence {
  bool has_interfaces = false;
  bool has_rules = false;
};
