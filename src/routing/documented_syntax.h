// "route PREFIX via ADDRESS weight N [metric M] [via ADDRESS weight N ...];"
//
// Texts go in as the configuration has them: the routing daemon of the device knows what it takes.
#pragma once

#include "routing/route_syntax.h"

class DocumentedSyntax : public RouteSyntax {
 public:
  bool takes(const RuleMember& member, const Nexthop& nexthop, bool ipv6) const override;
  std::string destination(const RuleTarget& target, bool ipv6) const override;
  std::string written_destination(const std::string& text, bool ipv6) const override;
  std::string line(const StaticRoute& route) const override;
  std::optional<StaticRoute> parse(const std::string& line, bool ipv6) const override;
};
