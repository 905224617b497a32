// The thread that collects an interface's echo replies.
#pragma once

#include <string>

// Starts and detaches a receiver for `ifname`, unless one runs. It marks answered probes of its
// family until waiting or reading fails; the next call then starts another. Failures are logged;
// after a failed start no second one is tried.
template <class Family>
void ensure_receiver(const std::string& ifname);
