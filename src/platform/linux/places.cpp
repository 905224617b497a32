#include "platform/places.h"

namespace {

// Every VRF but the device itself has a routing daemon with a tree of its own.
std::string vrf_tree(const std::string& vrf) { return "/var/vrfs/" + vrf + "/usr"; }

}  // namespace

std::string route_file_path(const std::string& vrf, bool ipv6) {
  const std::string tree = vrf == kDefaultNamespace ? "/usr" : vrf_tree(vrf);
  return tree + (ipv6 ? "/etc/routing-wlb6.conf" : "/etc/routing-wlb.conf");
}

std::string routing_pid_path(const std::string& vrf) {
  const std::string tree = vrf == kDefaultNamespace ? "" : vrf_tree(vrf);
  return tree + "/var/run/routing.pid";
}

// The IPv6 client's file name has no separator before the interface name.
std::string lease_file_path(const std::string& interface_name, bool ipv6) {
  return (ipv6 ? "/var/db/dhcp6_client" : "/var/db/dhclient_") + interface_name + ".leases";
}
