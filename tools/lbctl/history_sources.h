// Where state changes are read from: log files, or the journal.
#pragma once

#include <ctime>
#include <string>
#include <vector>

#include "lbctl/log_line.h"

namespace lbctl {

// Adds the changes in the file ("-": standard input). A Failure that names it when it cannot be
// read. A change that is stamped before the one above it (a clock that was set back, the hour that
// comes twice in autumn) counts from that one's time; one that is stamped later than now is
// complained about and passed over.
void read_log_file(const std::string& path, std::time_t now, std::vector<StateChange>& changes);

// The changes up to now in the system's journal, or in the journal files of `directory` if there is
// one. A Failure when it cannot be read, also for want of rights, or when there is none; what is
// damaged beside files with changes is complained about and passed over.
std::vector<StateChange> read_journal(const std::string& directory, std::time_t now);

}  // namespace lbctl
