// The thread of a VRF: it enters the VRF's network namespace and starts a worker for each family
// that the VRF has both interfaces and rules of.
#pragma once

#include <pthread.h>

#include <string>

class LBDaemon;

// Starts the thread. The pthread_create result; `thread` is valid when it is 0.
int start_vrf_thread(LBDaemon& daemon, const std::string& vrf, pthread_t& thread);
