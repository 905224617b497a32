// The daemon's start, from its arguments to its running threads.
#pragma once

// Runs the daemon; returns the exit status of the ways out that the start has. Once threads run it
// does not return.
int run_daemon(int argc, char** argv);
