// How static routes are written for the routing daemon: the documented lines, or those of BIRD 2.
//
// Objects without state; any thread.
#pragma once

#include <optional>
#include <string>

#include "config/options.h"
#include "routing/static_routes.h"

// Who carries a rule's routes: for messages about what is left out.
struct RuleMember {
  const std::string& rule;
  const std::string& interface;
};

// Where a rule's routes lead.
struct RuleTarget {
  const std::string& rule;
  const std::string& text;
  bool of_both_families = false;  // the rule has members of both
};

class RouteSyntax {
 public:
  virtual ~RouteSyntax() = default;

  // True when the member can be chosen to carry the rule's routes by this next hop (empty: still to
  // be found; its weight does not count). What is refused is logged, unless it is only to be found.
  virtual bool takes(const RuleMember& member, const Nexthop& nexthop, bool ipv6) const = 0;

  // The destination as it is written; empty, and logged, for one that is refused. Nothing is said
  // of one for the other family's members, if the rule has such.
  virtual std::string destination(const RuleTarget& target, bool ipv6) const = 0;

  // The same without a word of it.
  virtual std::string written_destination(const std::string& text, bool ipv6) const = 0;

  // One line with its newline; the route has at least one next hop.
  virtual std::string line(const StaticRoute& route) const = 0;

  // The route that `line` (without its newline) is the text of; nothing for a line that this syntax
  // does not write.
  virtual std::optional<StaticRoute> parse(const std::string& line, bool ipv6) const = 0;
};

// The one that the options ask for.
const RouteSyntax& route_syntax(const Options& options);
