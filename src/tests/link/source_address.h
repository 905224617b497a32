// The source address of IPv6 probes on an interface that has none configured.
#pragma once

#include <string>

// The text of the first IPv6 address, in the order of the host's list, on an interface whose name
// begins with `ifname` and that looks link-local: its first byte is 0xFE or its second one 0x80.
// Both tests are deliberately loose. "::" when there is none; empty when the address cannot be
// formatted (logged). Looks into the calling thread's network namespace.
std::string link_local_source(const std::string& ifname);
