// Which receiver a reply wakes.
//
// A raw ICMP socket gets a copy of every message of its network namespace: with a socket for each
// interface every reply would be copied, and read, once per interface. So the receivers of a
// namespace share. Each has its socket bound to its device, but one, the collector: it takes what
// comes by its own device and by all that no other receiver is bound to. A reply counts by
// whichever device it comes, also by one that nobody probes.
//
//   bound      what comes by its device, nothing while it has none
//   collector  the rest: a filter refuses what comes by the devices of the others
//
// A socket is bound before the collector's filter knows, and the filter lets pass before a socket
// is given up: while that changes a reply may come twice, and is never lost. Only whose replies are
// read has a share.
#pragma once

#include <cstdint>
#include <map>
#include <string>

#include "packets/family.h"
#include "platform/mutex.h"

// Of one family; any thread.
class ReplySharing {
 public:
  explicit ReplySharing(const Family& family) : family_(family) {}

  // Lets the raw ICMP socket `fd`, which a receiver reads, have its share, by the device that has
  // the name `ifname` now. One that is gone is kept until the name has another. A kernel that
  // cannot tell namespaces apart or bind by index (before Linux 5.14) leaves the socket as it is:
  // it takes all.
  void follow(int fd, const std::string& ifname) LB_EXCLUDES(mutex_);

  // Nobody reads `fd` any more: another receiver takes its share. To be called before it is closed.
  void leave(int fd) LB_EXCLUDES(mutex_);

 private:
  static constexpr int kNobody = -1;

  // The receivers of one namespace, by descriptor.
  struct Network {
    int collector = kNobody;
    std::map<int, int> bound;  // the index of the device; 0: none yet
  };

  // The namespace of `fd`, which has its share of it from now on; null where it cannot.
  Network* join(int fd) LB_REQUIRES(mutex_);
  // One of those that are bound, if the kernel lets one be unbound.
  void choose_collector(Network& network) const;
  bool make_collector(Network& network, int fd) const;
  // Makes the collector refuse what the others are bound to.
  void leave_others_theirs(const Network& network) const;

  const Family& family_;
  Mutex mutex_;
  std::map<uint64_t, Network> networks_ LB_GUARDED_BY(mutex_);  // by the namespace's cookie
  std::map<int, uint64_t> cookies_ LB_GUARDED_BY(mutex_);       // by descriptor
};

// That of the family's receivers.
ReplySharing& reply_sharing(const Family& family);
