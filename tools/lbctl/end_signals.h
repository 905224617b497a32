// The end of a subcommand that goes on until it is told to stop.
#pragma once

#include <csignal>

namespace lbctl {

// Holds SIGINT and SIGTERM back but for the time of a wait, so that none is missed and no line is
// cut; SIGCHLD too, which does nothing but end a wait. The mask for waiting. Once, on the only
// thread.
sigset_t take_end_signals();

// Whether SIGINT or SIGTERM has come.
bool end_is_wanted();

}  // namespace lbctl
