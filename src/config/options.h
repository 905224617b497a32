// What the section "options" of the configuration asks for beyond the documented behaviour.
#pragma once

// All off by default. Each stands for one object that takes another's place: see the comments.
struct Options {
  bool bird2_routes = false;       // "routing-daemon bird2": routing/route_syntax.h
  bool linux_discovery = false;    // "discovery linux": routing/nexthop_discovery.h
  bool wire_replies = false;       // "replies wire": tests/io/reply_source.h
  bool keeps_last_routes = false;  // "keep-last-routes": routing/route_keeper.h
};
