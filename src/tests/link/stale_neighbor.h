// A next hop that took another link-layer address in silence.
#pragma once

#include "config/lb_config.h"
#include "packets/family.h"

// Asks the kernel to verify its entry for the next hop of a failed interface. The daemon's frames
// pass by the kernel, which so never notices by itself that an entry leads nowhere any more; once
// it does, the entry is dead, and the prober sends a request. Does nothing for an interface that is
// active, has not settled yet or resolves no addresses, and for an entry that is anything but stale
// (confirmed, permanent, being verified). Route netlink (RTM_NEWNEIGH with NTF_USE). Never waits;
// failures are silent, the next cycle tries again. The interface's worker.
void verify_stale_nexthop(const LBInterface& interface, const Family& family);
