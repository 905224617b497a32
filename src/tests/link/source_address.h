// The source address of a link-level probe, among the addresses that the worker's questions find.
#pragma once

#include <string>

#include "packets/family.h"
#include "tests/link/link_info.h"

// The address that probes by `ifname` come from, as far as the configuration says. IPv4: the
// configured address, or empty for the interface's own. IPv6: the configured address, unless that
// is "::"; else link_local_source. "auto" stays the word.
std::string wanted_source(HostAddresses& addresses, const Family& family, const std::string& ifname,
                          const std::string& configured);

// What makes a wanted source unusable.
struct SourceFailure {
  enum class Step { kNone, kNoOwnAddress, kNotPresent };
  Step step = Step::kNone;
  int error = 0;  // an errno value
};

// Replaces "auto" by the address that auto_source.h chooses for `target`; without one it fails like
// a missing own address. Otherwise IPv4: replaces an empty source by the interface's own address
// (also where that then is not present), and demands that the source is an address of the host,
// else replies could not come back. IPv6 sources are taken as they are.
SourceFailure settle_source(LinkInfo& link, const Family& family, const std::string& ifname,
                            const std::string& target, std::string& source);

// The text of the first IPv6 address, in the order of the host's list, on an interface whose name
// begins with `ifname` and that looks link-local: its first byte is 0xFE or its second one 0x80.
// Both tests are deliberately loose. "::" when there is none; empty when the address cannot be
// formatted (logged).
std::string link_local_source(HostAddresses& addresses, const std::string& ifname);

// True when the dotted IPv4 `address` is configured on an interface whose name begins with `ifname`
// or with "vrrp". A failure to list the interfaces is logged and counts as false.
bool address_on_interface(HostAddresses& addresses, const std::string& ifname,
                          const std::string& address);
