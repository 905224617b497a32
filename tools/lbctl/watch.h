// `lbctl status --watch`: the live view.
#pragma once

#include <string>

#include "lbctl/status_model.h"

namespace lbctl {

// Shows the state until q or Ctrl-C is pressed or the terminal is gone; exit status 0. A signal
// that asks the program to end ends it by that signal, after the terminal was given back. A Failure
// (kExitUsage) without a terminal.
int watch_status(const std::string& output_directory, const Families& families);

}  // namespace lbctl
