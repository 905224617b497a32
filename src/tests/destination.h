// Where a probe goes.
#pragma once

#include <string>

// Chosen anew for every probe.
struct Destination {
  std::string target;   // empty while there is none
  std::string gateway;  // the next hop in force
};
