// Routers of any size, as configurations and as models of them.
#pragma once

#include <memory>
#include <string>

#include "core/lb_daemon.h"

struct RouterSize {
  int interfaces = 0;  // with `tests` each
  int tests = 0;
  int rules = 0;
  int members = 0;  // of each rule, from the first interface on
  int targets = 0;  // of each rule
  bool failover = false;
  std::string options = {};
};

// The configuration's text.
std::string router_text(const RouterSize& size);

// A daemon that has read it, whose interfaces are all active and were so for a while. Its output
// directory is in the scratch directory.
std::shared_ptr<LBDaemon> make_router(const RouterSize& size);

// A configuration of that many lines, of interfaces, rules, comments and empty lines.
std::string text_of_lines(int lines);
