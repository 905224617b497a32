// All that lbctl check says of one configuration.
#pragma once

#include <string>

#include "lbctl/check_findings.h"
#include "lbctl/check_machine.h"

namespace lbctl {

// The findings about a configuration's text, in its order. `machine` may be null: then nothing is
// asked of one. The daemon's own reader reads the text too: what it logs and no finding tells is
// told as it is.
Findings check_text(const std::string& text, const Machine* machine);

// The same of a file. A Failure (kExitUnreadable) that names it when it cannot be opened; something
// else than a file is a finding.
Findings check_file(const std::string& path, const Machine* machine);

}  // namespace lbctl
