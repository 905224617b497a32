// Filling of the dump records (dump_format.h). No files, no log.
//
// Every operation takes a record that is all zero. False: a text could not be formatted, the record
// is not complete.
#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include "config/lb_config.h"
#include "output/dump_format.h"
#include "output/interface_snapshot.h"

// The two numbers in a rule's name, "3_ipv6".
struct RuleKey {
  int32_t number = 0;
  int32_t version = 0;

  bool is_ipv6() const { return version == 6; }
};

// No value when the name does not begin so: such a rule has no place in the dumps.
std::optional<RuleKey> parse_rule_key(const std::string& rule_name);

// `now` is the wall clock in seconds.
bool fill_outbound(const InterfaceSnapshot& interface, uint32_t now, DumpOutbound& record);

// `names` knows the Linux names of the rule's members.
bool fill_rule(const RuleKey& key, const LBRule& rule, const LBConfig& names, DumpRule& record);

// `index` counts from 1. `nexthop` is empty when there is none to show.
bool fill_route(const RuleKey& key, const std::string& destination, const LBTarget& target,
                int32_t index, const std::string& nexthop, DumpRoute& record);
