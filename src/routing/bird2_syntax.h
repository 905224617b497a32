// The lines that BIRD 2 takes:
//
//   route PREFIX via ADDRESS%'DEVICE' onlink weight N [via ...] [{ krt_metric = M; }];
//
// With the device, next hops may be link-local, outside of the interface's prefix, or the same on
// two uplinks. BIRD refuses its whole configuration, both families, for one line that it does not
// understand: what it would not take is left out.
#pragma once

#include "routing/route_syntax.h"

class Bird2Syntax : public RouteSyntax {
 public:
  // A next hop that is still to be found cannot be chosen, nor can one that is no host's address of
  // the family or whose device BIRD has no way to name.
  bool takes(const RuleMember& member, const Nexthop& nexthop, bool ipv6) const override;

  // An address or a prefix of the family ("default": all of it), without host bits.
  std::string destination(const RuleTarget& target, bool ipv6) const override;
  std::string written_destination(const std::string& text, bool ipv6) const override;

  // Weights beyond BIRD's largest are scaled down together, each to at least 1.
  std::string line(const StaticRoute& route) const override;
  std::optional<StaticRoute> parse(const std::string& line, bool ipv6) const override;
};
