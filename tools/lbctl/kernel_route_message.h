// The routes that the kernel tells in a dump of its tables (RTM_NEWROUTE, rtnetlink(7)).
#pragma once

#include <functional>
#include <string>
#include <vector>

#include "lbctl/kernel_table.h"
#include "packets/family.h"
#include "packets/netlink_dump.h"

namespace lbctl {

// The name of the device with an index; empty when there is none.
using DeviceName = std::function<std::string(unsigned int)>;

// Appends the route that `message` tells, if it is a unicast route of the family in the main table.
// A next hop that the kernel has marked as dead is left out. Nothing beyond the message is read.
void append_kernel_route(const NetlinkMessage& message, const Family& family,
                         const DeviceName& name_of, std::vector<KernelRoute>& routes);

}  // namespace lbctl
