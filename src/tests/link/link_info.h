// What probers and probes ask the kernel about an interface. A name that is longer than the
// kernel's limit is cut.
#pragma once

#include <netinet/in.h>

#include <array>
#include <optional>
#include <string>

#include "packets/ethernet.h"
#include "platform/file_descriptor.h"
#include "tests/link/host_addresses.h"

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
enum class LinkSocket { kDatagram, kRawIpv4, kPacket };

// The questions of one worker, in the network namespace in which the first is asked. Each kind of
// socket is opened with the first question that needs it and kept: to close a packet socket takes
// the kernel a grace period of many milliseconds. Not for two threads at once.
class LinkInfo {
 public:
  // The hardware address (SIOCGIFHWADDR).
  LinkAnswer<MacAddress> hardware_address(LinkSocket kind, const std::string& ifname);

  // The interface's own (first) IPv4 address, in network byte order (SIOCGIFADDR).
  LinkAnswer<in_addr> own_ipv4_address(const std::string& ifname);

  // The index (SIOCGIFINDEX); 0 without one, with errno set.
  unsigned int index(const std::string& ifname);

  // A socket of the kind, or -1 with errno set. It stays the object's.
  int socket(LinkSocket kind);

  HostAddresses& addresses() { return addresses_; }

 private:
  std::array<FileDescriptor, 3> sockets_;  // by kind
  HostAddresses addresses_;
};

// The name of the interface with index `ifindex`; empty when there is none. In the calling thread's
// namespace; any thread.
std::string interface_name(unsigned int ifindex);

// Whether the interface uses no link-layer address resolution (IFF_NOARP), or nothing when the
// kernel did not say. Opens a socket in the calling thread's namespace and closes it again; any
// thread.
std::optional<bool> no_arp_flag(const std::string& ifname);
