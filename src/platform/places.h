// Where the files are that other programs of the device write or read.
//
// Paths only: no function looks at the file system. Every call returns a text of its own; any
// thread.
#pragma once

#include <string>

// The VRF that is no namespace of its own: the device itself.
inline const std::string kDefaultNamespace = "default";

// The static routes of one family that the routing daemon of `vrf` includes.
std::string route_file_path(const std::string& vrf, bool ipv6);

// The pid file of the routing daemon of `vrf`.
std::string routing_pid_path(const std::string& vrf);

// The leases that the DHCP client of one family keeps for the interface with the configured name
// `interface_name`.
std::string lease_file_path(const std::string& interface_name, bool ipv6);
