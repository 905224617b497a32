// The thread that collects an interface's echo replies.
#pragma once

#include <string>

#include "packets/family.h"
#include "tests/io/interface_sockets.h"

// Starts and detaches a receiver for `ifname`, unless one runs. It marks answered probes of the
// family until waiting or reading fails; the next call then starts another. Failures are logged;
// after a failed start no second one is tried.
void ensure_receiver(const Family& family, const std::string& ifname);

// Waits until the receivers of the family in the namespace of `sockets` have read all replies and
// marked their probes, for `milliseconds` at most, from which the time that it took is taken off. A
// machine that was paused wakes its threads in any order: a probe must not be given up while its
// reply waits to be read.
void let_receivers_catch_up(const InterfaceSockets& sockets, int& milliseconds);
