// The text of the status report files (docs/status-report.md). No files, no clock, no log.
#pragma once

#include <cstdint>
#include <string>

#include "output/interface_snapshot.h"

// "1d1h1m1s": the units from the largest that is not zero down to the seconds, which always stand.
// A unit of zero in between is left out.
std::string elapsed_text(uint32_t seconds);

// The block of one interface, its empty line at the end included. `now` is the wall clock in
// seconds.
std::string interface_block(const InterfaceSnapshot& interface, uint32_t now);
