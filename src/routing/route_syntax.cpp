#include "routing/route_syntax.h"

#include "routing/bird2_syntax.h"
#include "routing/documented_syntax.h"

const RouteSyntax& route_syntax(const Options& options) {
  static const DocumentedSyntax documented;
  static const Bird2Syntax bird2;
  if (options.bird2_routes) return bird2;
  return documented;
}
