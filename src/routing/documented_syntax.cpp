#include "routing/documented_syntax.h"

#include "routing/route_words.h"

// A member is chosen before its next hop is looked at.
bool DocumentedSyntax::takes(const RuleMember& /*member*/, const Nexthop& /*nexthop*/,
                             bool /*ipv6*/) const {
  return true;
}

std::string DocumentedSyntax::destination(const RuleTarget& target, bool /*ipv6*/) const {
  return target.text;
}

std::string DocumentedSyntax::written_destination(const std::string& text, bool /*ipv6*/) const {
  return text;
}

std::string DocumentedSyntax::line(const StaticRoute& route) const {
  std::string line = "route " + route.destination;
  for (const Nexthop& nexthop : route.nexthops) {
    const bool first = &nexthop == &route.nexthops.front();
    line += " via ";
    line += nexthop.address;
    line += " weight ";
    line += std::to_string(nexthop.weight);
    // The metric belongs to the route; the routing daemon takes it after the first next hop.
    if (first && route.metric != -1) line += " metric " + std::to_string(route.metric);
  }
  line += ";\n";
  return line;
}

std::optional<StaticRoute> DocumentedSyntax::parse(const std::string& line, bool /*ipv6*/) const {
  RouteWords words(line);
  StaticRoute route;
  if (!words.take("route") || !words.take_text(route.destination)) return std::nullopt;
  while (words.take("via")) {
    Nexthop& nexthop = route.nexthops.emplace_back();
    if (!words.take_text(nexthop.address) || !words.take("weight") ||
        !words.take_number(nexthop.weight)) {
      return std::nullopt;
    }
    if (words.take("metric") && !words.take_number(route.metric)) return std::nullopt;
  }
  return written_as(*this, route, line);
}
