// A kernel for the probers' unit tests: it needs no privilege and touches nothing of the machine.
//
// Every socket that the code opens is one end of a pair, whatever its kind; the test holds the
// other end and plays the network with it. Interface, ARP-table and netlink requests are answered
// from the fields below, and what is asked and sent is recorded. Threads are joined where the code
// detaches them, and a receiver that waits without end leaves its loop once it has read what was
// delivered.
#pragma once

#include <gtest/gtest.h>
#include <linux/if_packet.h>
#include <linux/netlink.h>
#include <net/if.h>
#include <net/if_arp.h>
#include <netinet/in.h>
#include <sys/ioctl.h>
#include <sys/socket.h>

#include <algorithm>
#include <atomic>
#include <cstring>
#include <deque>
#include <string>
#include <vector>

#include "packets/ethernet.h"
#include "platform/file_descriptor.h"
#include "support/spin_lock.h"
#include "support/wrapped_calls.h"

using Bytes = std::vector<uint8_t>;

inline constexpr MacAddress kOwnMac{0x02, 0x11, 0x22, 0x33, 0x44, 0x55};
inline constexpr unsigned kIfindex = 7;

class FakeKernel {
 public:
  struct Opened {
    int domain, type, protocol;
    int fd;
    FileDescriptor far_end;
  };
  struct Frame {
    int fd;
    sockaddr_ll destination;
    socklen_t destination_size;
    Bytes bytes;
  };

  ~FakeKernel() { finish_receivers(); }

  // The sockets opened so far, oldest first. For the test's thread, while no other opens any.
  const std::deque<Opened>& opened() const { return opened_; }

  int count(int domain, int protocol) {
    SpinLockHolder holder(lock_);
    int found = 0;
    for (const Opened& s : opened_) found += s.domain == domain && s.protocol == protocol ? 1 : 0;
    return found;
  }

  // What socket() does here.
  int open_socket(int domain, int type, int protocol) {
    int ends[2];
    if (socketpair(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0, ends) != 0) return -1;
    SpinLockHolder holder(lock_);
    opened_.push_back({domain, type, protocol, ends[0], FileDescriptor(ends[1])});
    return ends[0];
  }

  // Puts a frame into the queue of every packet socket of that protocol (network byte order).
  void deliver(int protocol, const Bytes& frame) {
    SpinLockHolder holder(lock_);
    for (const Opened& s : opened_) {
      if (s.domain != AF_PACKET || s.protocol != protocol) continue;
      ::send(s.far_end.get(), frame.data(), frame.size(), MSG_DONTWAIT);
    }
  }

  // Lets receivers read what was delivered and waits until their threads have ended.
  void finish_receivers() {
    finished_.store(true);
    std::vector<pthread_t> threads;
    {
      SpinLockHolder holder(lock_);
      threads.swap(threads_);
    }
    for (pthread_t thread : threads) wrapped::pthread_join.real(thread, nullptr);
  }

  // What the kernel says; an errno value other than 0 refuses the request.
  int hardware_address_error = 0;
  int flags_error = 0;
  short flags = 0;
  int address_error = 0;
  in_addr own_address{};
  int arp_query_error = ENXIO;
  int arp_flags = 0;
  MacAddress arp_mac{};
  int arp_set_error = 0;
  std::vector<Bytes> netlink_answers;  // one read each, for every request

  // What the kernel was asked and told.
  std::vector<ifreq> interface_requests;
  std::vector<arpreq> arp_queries;
  std::vector<arpreq> arp_entries;
  std::vector<Frame> frames;
  std::vector<Bytes> netlink_requests;
  std::vector<size_t> netlink_buffers;         // how many buffers each request was made of
  std::vector<sockaddr_nl> netlink_addresses;  // of each bind and each sendmsg

 private:
  static int result(int error) {
    if (error == 0) return 0;
    errno = error;
    return -1;
  }

  int control(int fd, unsigned long request, void* argument) {
    SpinLockHolder holder(lock_);
    if (request == SIOCGARP || request == SIOCSARP) {
      auto& entry = *static_cast<arpreq*>(argument);
      if (request == SIOCSARP) {
        arp_entries.push_back(entry);
        return result(arp_set_error);
      }
      arp_queries.push_back(entry);
      entry.arp_flags = arp_flags;
      std::memcpy(entry.arp_ha.sa_data, arp_mac.data(), arp_mac.size());
      return result(arp_query_error);
    }
    auto& interface = *static_cast<ifreq*>(argument);
    interface_requests.push_back(interface);
    switch (request) {
      case SIOCGIFHWADDR:
        std::memcpy(interface.ifr_hwaddr.sa_data, kOwnMac.data(), kOwnMac.size());
        return result(hardware_address_error);
      case SIOCGIFFLAGS:
        interface.ifr_flags = flags;
        return result(flags_error);
      case SIOCGIFADDR: {
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_addr = own_address;
        std::memcpy(&interface.ifr_addr, &address, sizeof(address));
        return result(address_error);
      }
      default:
        return wrapped::ioctl.real(fd, request, argument);
    }
  }

  ssize_t send_frame(int fd, const void* data, size_t size, const sockaddr* address,
                     socklen_t address_size) {
    if (fd < 0) return result(EBADF);
    Frame frame{fd, {}, address_size, Bytes(size)};
    std::memcpy(frame.bytes.data(), data, size);
    std::memcpy(&frame.destination, address, std::min<size_t>(address_size, sizeof(sockaddr_ll)));
    SpinLockHolder holder(lock_);
    frames.push_back(std::move(frame));
    return static_cast<ssize_t>(size);
  }

  ssize_t send_request(int fd, const msghdr* message) {
    Bytes request;
    for (size_t i = 0; i < message->msg_iovlen; ++i) {
      const auto* data = static_cast<const uint8_t*>(message->msg_iov[i].iov_base);
      request.insert(request.end(), data, data + message->msg_iov[i].iov_len);
    }
    const auto size = static_cast<ssize_t>(request.size());
    SpinLockHolder holder(lock_);
    note_netlink_address(message->msg_name, message->msg_namelen);
    netlink_buffers.push_back(message->msg_iovlen);
    netlink_requests.push_back(std::move(request));
    for (auto s = opened_.rbegin(); s != opened_.rend(); ++s) {
      if (s->fd != fd) continue;
      for (const Bytes& answer : netlink_answers) {
        ::send(s->far_end.get(), answer.data(), answer.size(), MSG_DONTWAIT);
      }
      break;
    }
    return size;
  }

  void note_netlink_address(const void* address, socklen_t size) {
    sockaddr_nl noted{};
    std::memcpy(&noted, address, std::min<size_t>(size, sizeof(noted)));
    netlink_addresses.push_back(noted);
  }

  int wait(pollfd* fds, nfds_t count, int timeout) const {
    if (timeout >= 0) return wrapped::poll.real(fds, count, timeout);
    for (;;) {
      const bool last = finished_.load();
      const int ready = wrapped::poll.real(fds, count, last ? 0 : 5);
      if (ready != 0 || last) return ready;
    }
  }

  int create_thread(pthread_t* thread, const pthread_attr_t* attributes, WrappedThreadStart start,
                    void* argument) {
    const int rc = wrapped::pthread_create.real(thread, attributes, start, argument);
    SpinLockHolder holder(lock_);
    if (rc == 0) threads_.push_back(*thread);
    return rc;
  }

  SpinLock lock_;
  std::atomic<bool> finished_{false};
  std::deque<Opened> opened_;
  std::vector<pthread_t> threads_;

  CallHook<int(int, int, int)> socket_{
      wrapped::socket, [this](int d, int t, int p) { return open_socket(d, t, p); }};
  CallHook<int(int, unsigned long, void*)> ioctl_{
      wrapped::ioctl,
      [this](int fd, unsigned long request, void* data) { return control(fd, request, data); }};
  CallHook<unsigned(const char*)> if_nametoindex_{wrapped::if_nametoindex,
                                                  [](const char*) { return kIfindex; }};
  CallHook<ssize_t(int, const void*, size_t, int, const sockaddr*, socklen_t)> sendto_{
      wrapped::sendto,
      [this](int fd, const void* data, size_t size, int, const sockaddr* to, socklen_t to_size) {
        return send_frame(fd, data, size, to, to_size);
      }};
  CallHook<int(int, const sockaddr*, socklen_t)> bind_{
      wrapped::bind, [this](int, const sockaddr* address, socklen_t size) {
        SpinLockHolder holder(lock_);
        note_netlink_address(address, size);
        return 0;
      }};
  CallHook<ssize_t(int, const msghdr*, int)> sendmsg_{
      wrapped::sendmsg,
      [this](int fd, const msghdr* message, int) { return send_request(fd, message); }};
  CallHook<int(pollfd*, nfds_t, int)> poll_{
      wrapped::poll,
      [this](pollfd* fds, nfds_t count, int timeout) { return wait(fds, count, timeout); }};
  CallHook<int(pthread_t*, const pthread_attr_t*, WrappedThreadStart, void*)> pthread_create_{
      wrapped::pthread_create,
      [this](pthread_t* thread, const pthread_attr_t* attributes, WrappedThreadStart start,
             void* argument) { return create_thread(thread, attributes, start, argument); }};
  CallHook<int(pthread_t)> pthread_detach_{wrapped::pthread_detach, [](pthread_t) { return 0; }};
};

// What is printed on standard error while it lives.
class CapturedStderr {
 public:
  CapturedStderr() { testing::internal::CaptureStderr(); }
  ~CapturedStderr() {
    if (!taken_) testing::internal::GetCapturedStderr();
  }
  std::string text() {
    taken_ = true;
    return testing::internal::GetCapturedStderr();
  }

 private:
  bool taken_ = false;
};
