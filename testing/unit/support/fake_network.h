// A network of one interface for the echo tests, without a kernel: the calls that sending and
// receiving make are answered here.
//
// A socket is one end of a local pair; what a test writes to the other end, `deliver`, is what the
// daemon's code receives. Nothing that is sent goes anywhere: it is kept in `sent`. The answers are
// plain fields that a test changes at will before the call. Faults (wrapped_calls.h) come first.
//
// Destroyed after the objects under test; it waits for the threads that they started, which end
// because their sockets do.
#pragma once

#include <array>
#include <atomic>
#include <cstdint>
#include <functional>
#include <map>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

#include "support/wrapped_calls.h"

class FakeNetwork {
 public:
  using Bytes = std::vector<uint8_t>;
  using Mac = std::array<uint8_t, 6>;

  struct Socket {
    int fd = -1;    // the daemon's end
    int peer = -1;  // ours
    int domain = 0;
    int type = 0;  // without flags
    int protocol = 0;
    bool close_on_exec = false;
  };
  struct Option {
    int fd;
    int level;
    int name;
    Bytes value;
  };
  struct Datagram {
    int fd;
    Bytes bytes;
    Bytes address;
  };

  FakeNetwork();
  ~FakeNetwork();

  // What the kernel says.
  bool no_arp = false;                                          // SIOCGIFFLAGS
  Mac own_mac{0x02, 0xaa, 0xbb, 0xcc, 0xdd, 0xee};              // SIOCGIFHWADDR
  std::string own_address = "192.0.2.1";                        // SIOCGIFADDR
  Mac gateway_mac{0x02, 0x11, 0x22, 0x33, 0x44, 0x55};          // both neighbour tables
  unsigned interface_index = 7;                                 // if_nametoindex
  std::map<unsigned long, int> ioctl_errors;                    // request: errno
  std::vector<std::pair<std::string, std::string>> addresses;   // getifaddrs: name, address
  std::map<std::string, std::vector<std::string>> known_hosts;  // resolver: name, addresses
  int arp_misses_after = -1;                   // SIOCGARP fails from this call on; -1: never
  int conntrack_answer = 0;                    // errno of the tracker's answer
  std::function<void(const Bytes&)> on_frame;  // called within sendto
  std::function<void()> on_question;           // called within ioctl

  // What was done. Not to be read while threads still work.
  std::vector<Socket> sockets;
  std::vector<Option> options;
  std::vector<Datagram> sent;
  std::vector<Bytes> conntrack_requests;
  std::map<unsigned long, int> ioctl_calls;
  std::vector<std::string> resolved;  // names that the resolver was asked for

  // The index of the `sockets` entry behind a descriptor; the test fails when there is none.
  const Socket& socket_of(int fd) const;

  // The last socket of that kind, or one with fd -1.
  Socket last_socket(int domain, int type, int protocol) const;

  // The options set on a socket, by name.
  std::vector<int> option_names(int fd) const;

  // Lets the daemon's end of `socket` receive a packet.
  static void deliver(const Socket& socket, const Bytes& packet);

  // True once the daemon's end is closed.
  static bool is_closed(const Socket& socket);

  // Threads that were started and have not ended.
  int live_threads() const { return live_threads_->load(); }

  // Ends what still waits for packets, then waits for the threads' ends.
  void end_threads();

 private:
  int open_socket(int domain, int type, int protocol);
  int answer_ioctl(unsigned long request, void* argument);
  int list_addresses(ifaddrs** result) const;
  int resolve(const char* name, int family, hostent* entry, char* buffer, size_t size,
              hostent** result, int* error);
  void answer_route_request(int fd);
  int start_thread(pthread_t* thread, WrappedThreadStart body, void* argument);

  mutable std::recursive_mutex mutex_;
  std::shared_ptr<std::atomic<int>> live_threads_ = std::make_shared<std::atomic<int>>(0);
  std::vector<std::shared_ptr<void>> hooks_;
};
