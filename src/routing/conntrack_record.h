// Connection-tracking records for echo requests that the kernel never sees.
#pragma once

#include <string>

#include "config/worker_context.h"

// Enters an ICMP (IPv6 worker: ICMPv6) echo exchange from `source` to `target` into the kernel's
// connection tracker of the VRF, for 32 seconds, with the identifier that the requests carry (low
// 16 bits of the process id). 0, or -1 with a message logged, also when the record exists already;
// its time then begins anew.
// Netfilter netlink (linux/netfilter/nfnetlink_conntrack.h). Any worker thread; exchanges take
// turns.
int create_conntrack_record(const std::string& source, const std::string& target,
                            const LBWorkerContext& context);
