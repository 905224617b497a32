// The kernel's number of a device.
#pragma once

#include <string>

// The index of the device that has the name `ifname` in the network namespace of the socket `fd`,
// which need not be the caller's: workers of two VRFs may ask for one name. 0 where there is none,
// with errno set (SIOCGIFINDEX); a name that is longer than the kernel's limit is nobody's.
int device_index(int fd, const std::string& ifname);
