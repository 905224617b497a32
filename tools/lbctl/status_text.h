// The table of `lbctl status`: per family its interfaces, each with a line per test, then its
// rules. No line is longer than 80 columns.
#pragma once

#include <vector>

#include "lbctl/status_model.h"
#include "lbctl/text_table.h"

namespace lbctl {

inline constexpr size_t kTableWidth = 80;

// `subject` of an interface's line.
std::string interface_subject(const InterfaceDump& interface);

// The tables of the families that have interfaces or rules; a line of its own where none has.
std::vector<TextLine> status_tables(const Status& status);

// When the files were written, and whether they are stale.
TextLine written_line(const Status& status);

// All that `lbctl status` prints.
std::vector<TextLine> status_text(const Status& status);

}  // namespace lbctl
