// The section "options" of the configuration file.
//
//   options {
//     routing-daemon bird2      depth 1: an option, with its value where it has one
#pragma once

#include "config/config_line.h"
#include "config/options.h"

// Sets what `line` asks for in `options`. An unknown option, a value that the option does not have
// and an option at another depth change nothing and are logged.
void apply_option(const ConfigLine& line, Options& options);
