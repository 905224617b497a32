// A network of one interface for the health tests, without a kernel: the calls that sending and
// receiving make are answered here.
//
// The answers are plain fields that a test changes at will before the call. Faults
// (wrapped_calls.h) come first. Destroyed after the objects under test; it waits for the threads
// that they started, which end because their sockets do.
#pragma once

#include <linux/if_packet.h>
#include <linux/netlink.h>
#include <net/if_arp.h>
#include <sys/ioctl.h>

#include <atomic>
#include <map>
#include <string>
#include <utility>
#include <vector>

#include "packets/ethernet.h"
#include "support/fake_sockets.h"

class FakeNetwork : public FakeSockets {
 public:
  FakeNetwork();
  ~FakeNetwork();

  // What the kernel says.
  bool no_arp = false;                                         // SIOCGIFFLAGS
  MacAddress own_mac{0x02, 0xaa, 0xbb, 0xcc, 0xdd, 0xee};      // SIOCGIFHWADDR
  std::string own_address = "192.0.2.1";                       // SIOCGIFADDR
  MacAddress gateway_mac{0x02, 0x11, 0x22, 0x33, 0x44, 0x55};  // both neighbour tables
  unsigned interface_index = 7;                                // of other names than these

  std::map<unsigned, std::string> interface_names{{7, "eth0"}};  // index and name of interfaces
  std::atomic<unsigned> arrival_interface{7};                    // by which frames come
  std::map<unsigned long, int> ioctl_errors;                     // request: errno
  std::vector<std::pair<std::string, std::string>> addresses;    // getifaddrs: name, address
  std::map<std::string, std::vector<std::string>> known_hosts;   // resolver: name, addresses
  int arp_flags = ATF_COM;                                       // of the entry of the ARP table
  int arp_misses_after = -1;           // SIOCGARP fails from this call on; -1: never
  std::vector<Bytes> netlink_answers;  // one read each; none: a table of all gateways
  int conntrack_answer = 0;            // errno of the tracker's answer
  std::function<void()> on_question;   // called within ioctl

  // What it was asked and told. Not to be read while threads still work.
  std::vector<Bytes> conntrack_requests;
  std::map<unsigned long, int> ioctl_calls;
  std::vector<ifreq> interface_requests;
  std::vector<arpreq> arp_queries;
  std::vector<arpreq> arp_entries;
  std::vector<Bytes> netlink_requests;
  std::vector<size_t> netlink_buffers;         // how many buffers each request was made of
  std::vector<sockaddr_nl> netlink_addresses;  // of each bind and each sendmsg
  std::vector<std::string> resolved;           // names that the resolver was asked for

 private:
  int answer_ioctl(unsigned long request, void* argument);
  int answer_interface_request(unsigned long request, ifreq& interface);
  int answer_arp_request(unsigned long request, int call, arpreq& entry);
  void note_netlink_address(const void* address, socklen_t size);
  ssize_t answer_route_message(int fd, const msghdr& message);
  ssize_t answer_route_request(int fd, Bytes request);
  std::vector<Bytes> gateways() const;
  unsigned index_of(const std::string& name) const;
  char* name_of(unsigned index, char* name) const;
  ssize_t receive_frame(int fd, void* data, size_t size, int flags, sockaddr* address,
                        socklen_t* address_size) const;
  int list_addresses(ifaddrs** result) const;
  int resolve(const char* name, int family, hostent* entry, char* buffer, size_t size,
              hostent** result, int* error);
  ssize_t answer_tracker_request(void* data) const;
};
