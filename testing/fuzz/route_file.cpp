// The routing daemon's file as the run before left it, or whoever wrote it since.
#include <sstream>
#include <string>

#include "routing/bird2_syntax.h"
#include "routing/documented_syntax.h"
#include "support/bytes.h"
#include "support/property.h"

namespace {

// What is taken stands in the file as it would be written, and BIRD takes nothing else.
void check(const RouteSyntax& syntax, const std::string& text, bool ipv6) {
  std::istringstream lines(text);
  std::string line;
  std::string body;
  for (const StaticRoute& route : read_static_routes(text, ipv6, syntax)) {
    const std::string written = syntax.line(route);
    HOLDS(!route.nexthops.empty() && written.starts_with("route "));
    do {
      HOLDS(static_cast<bool>(std::getline(lines, line)));
    } while (line + "\n" != written);
    body += written;
  }
  // Nothing is lost or gained when it is written and read again.
  std::string again;
  for (const StaticRoute& route :
       read_static_routes(protocol_static_text(body, ipv6), ipv6, syntax)) {
    again += syntax.line(route);
  }
  HOLDS(again == body);
}

void check_bird2(const std::string& text, bool ipv6) {
  const Bird2Syntax syntax;
  check(syntax, text, ipv6);
  for (const StaticRoute& route : read_static_routes(text, ipv6, syntax)) {
    HOLDS(syntax.destination({"1", route.destination}, ipv6) == route.destination);
    for (const Nexthop& nexthop : route.nexthops) {
      HOLDS(syntax.takes({"1", "wan"}, nexthop, ipv6));
      HOLDS(nexthop.weight >= 1 && nexthop.weight <= 256);
    }
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const ExactCopy copy({data, size});
  const std::string text(copy.text());
  for (const bool ipv6 : {false, true}) {
    check(DocumentedSyntax(), text, ipv6);
    check_bird2(text, ipv6);
  }
  return 0;
}
