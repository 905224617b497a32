// What probers and probes ask the kernel about an interface. Every operation looks into the
// calling thread's network namespace, opens the socket it needs and closes it again, and may be
// called by any thread. A name that is longer than the kernel's limit is cut.
#pragma once

#include <netinet/in.h>

#include <optional>
#include <string>

#include "packets/ethernet.h"

// How far a question came: callers have a message of their own for each failure.
enum class LinkStep { kAnswered, kSocketFailed, kIoctlFailed };

template <class T>
struct LinkAnswer {
  LinkStep step = LinkStep::kAnswered;
  int error = 0;  // errno of the failure
  T value{};

  bool answered() const { return step == LinkStep::kAnswered; }
};

// The socket through which the question is put: it decides which privilege the question needs.
enum class LinkSocket { kRawIpv4, kPacket };

// The hardware address (SIOCGIFHWADDR).
LinkAnswer<MacAddress> hardware_address(LinkSocket kind, const std::string& ifname);

// The interface's own (first) IPv4 address, in network byte order (SIOCGIFADDR).
LinkAnswer<in_addr> own_ipv4_address(const std::string& ifname);

// The name of the interface with index `ifindex`; empty when there is none.
std::string interface_name(unsigned int ifindex);

// Whether the interface uses no link-layer address resolution (IFF_NOARP), or nothing when the
// kernel did not say.
std::optional<bool> no_arp_flag(const std::string& ifname);
