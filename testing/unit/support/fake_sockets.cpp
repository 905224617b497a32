#include "support/fake_sockets.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <cstring>

namespace {

struct ThreadStart {
  WrappedThreadStart body;
  void* argument;
  std::shared_ptr<std::atomic<int>> live;
};

void* run_counted(void* argument) {
  const std::unique_ptr<ThreadStart> start(static_cast<ThreadStart*>(argument));
  void* const result = start->body(start->argument);
  --*start->live;
  return result;
}

// Lets reads of the daemon's end go on to the end of what was delivered. Netlink exchanges are left
// alone: their answers come with the question.
void end_reading(const FakeSockets::Socket& socket) {
  if (socket.domain != AF_NETLINK) ::shutdown(socket.peer, SHUT_RDWR);
}

}  // namespace

FakeSockets::FakeSockets() {
  static std::atomic<uint64_t> networks{0};
  network_cookie = ++networks;
  add_hook(wrapped::socket, [this](int domain, int type, int protocol) {
    return open_socket(domain, type, protocol);
  });
  add_hook(wrapped::setsockopt,
           [this](int fd, int level, int name, const void* value, socklen_t size) {
             return set_option(fd, level, name, value, size);
           });
  add_hook(wrapped::getsockopt, [this](int fd, int level, int name, void* value, socklen_t* size) {
    return get_option(fd, level, name, value, size);
  });
  add_hook(wrapped::sendto, [this](int fd, const void* data, size_t size, int flags,
                                   const sockaddr* address, socklen_t address_size) {
    return send_datagram(fd, data, size, flags, address, address_size);
  });
  add_hook(wrapped::poll,
           [this](pollfd* fds, nfds_t count, int timeout) { return wait(fds, count, timeout); });
  add_hook(wrapped::pthread_create,
           [this](pthread_t* thread, const pthread_attr_t*, WrappedThreadStart body,
                  void* argument) { return start_thread(thread, body, argument); });
}

FakeSockets::~FakeSockets() {
  end_threads();
  remove_hooks();
  for (const int peer : peers_) wrapped::close.real(peer);
}

void FakeSockets::end_threads() {
  {
    SpinLockHolder holder(lock_);
    ending_ = true;
    for (const Socket& socket : sockets) end_reading(socket);
  }
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(20);
  while (live_threads() > 0) {
    if (std::chrono::steady_clock::now() > deadline) {
      // They would go on to use what goes with the test.
      std::fprintf(stderr, "%d threads do not end\n", live_threads());
      std::abort();
    }
    sched_yield();
  }
}

int FakeSockets::open_socket(int domain, int type, int protocol) {
  int pair[2];
  if (socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, pair) != 0) return -1;
  const int flags = SOCK_CLOEXEC | SOCK_NONBLOCK;
  SpinLockHolder holder(lock_);
  sockets.push_back(
      {pair[0], pair[1], domain, type & ~flags, protocol, (type & SOCK_CLOEXEC) != 0});
  peers_.push_back(pair[1]);
  if (ending_) end_reading(sockets.back());
  return pair[0];
}

FakeSockets::Socket FakeSockets::socket_of(int fd) const {
  SpinLockHolder holder(lock_);
  const auto found = std::find_if(sockets.rbegin(), sockets.rend(),
                                  [fd](const Socket& socket) { return socket.fd == fd; });
  if (found != sockets.rend()) return *found;
  ADD_FAILURE() << "no socket has the descriptor " << fd;
  return {};
}

FakeSockets::Socket FakeSockets::last_socket(int domain, int type, int protocol) const {
  SpinLockHolder holder(lock_);
  for (auto socket = sockets.rbegin(); socket != sockets.rend(); ++socket) {
    if (socket->domain == domain && socket->type == type && socket->protocol == protocol) {
      return *socket;
    }
  }
  return {};
}

int FakeSockets::count(int domain, int protocol) const {
  SpinLockHolder holder(lock_);
  return static_cast<int>(std::count_if(sockets.begin(), sockets.end(), [=](const Socket& socket) {
    return socket.domain == domain && socket.protocol == protocol;
  }));
}

std::vector<int> FakeSockets::option_names(int fd) const {
  SpinLockHolder holder(lock_);
  std::vector<int> names;
  for (const Option& option : options) {
    if (option.fd == fd) names.push_back(option.name);
  }
  return names;
}

void FakeSockets::deliver(const Socket& socket, const Bytes& packet) {
  const ssize_t written =
      wrapped::send.real(socket.peer, packet.data(), packet.size(), MSG_NOSIGNAL);
  EXPECT_EQ(written, static_cast<ssize_t>(packet.size()));
}

void FakeSockets::deliver_frame(int protocol, const Bytes& frame) const {
  SpinLockHolder holder(lock_);
  for (const Socket& socket : sockets) {
    if (socket.domain != AF_PACKET || socket.protocol != protocol) continue;
    wrapped::send.real(socket.peer, frame.data(), frame.size(), MSG_DONTWAIT | MSG_NOSIGNAL);
  }
}

bool FakeSockets::is_closed(const Socket& socket) {
  char byte;
  return wrapped::recv.real(socket.peer, &byte, 1, MSG_DONTWAIT) == 0;
}

FakeSockets::Bytes FakeSockets::to_bytes(const void* data, size_t size) {
  const auto* begin = static_cast<const uint8_t*>(data);
  return {begin, begin + size};
}

int FakeSockets::get_option(int fd, int level, int name, void* value, socklen_t* size) const {
  if (level != SOL_SOCKET || name != SO_NETNS_COOKIE) {
    return wrapped::getsockopt.real(fd, level, name, value, size);
  }
  const uint64_t cookie = network_cookie;
  EXPECT_EQ(*size, sizeof(cookie));
  std::memcpy(value, &cookie, sizeof(cookie));
  return 0;
}

int FakeSockets::set_option(int fd, int level, int name, const void* value, socklen_t size) {
  if (filters && name == SO_ATTACH_FILTER) {
    return wrapped::setsockopt.real(fd, level, name, value, size);
  }
  SpinLockHolder holder(lock_);
  options.push_back({fd, level, name, to_bytes(value, size)});
  return 0;
}

ssize_t FakeSockets::send_datagram(int fd, const void* data, size_t size, int flags,
                                   const sockaddr* address, socklen_t address_size) {
  if (fd < 0) {
    errno = EBADF;
    return -1;
  }
  const Bytes bytes = to_bytes(data, size);
  {
    SpinLockHolder holder(lock_);
    sent.push_back({fd, bytes, to_bytes(address, address_size), flags});
  }
  if (on_frame) on_frame(bytes);
  return static_cast<ssize_t>(size);
}

int FakeSockets::wait(pollfd* fds, nfds_t count, int timeout) const {
  const int ready = wrapped::poll.real(fds, count, timeout);
  if (timeout >= 0 || ready <= 0 || !ending_) return ready;
  char byte;
  const bool unread = wrapped::recv.real(fds->fd, &byte, 1, MSG_PEEK | MSG_DONTWAIT) > 0;
  return unread ? ready : 0;
}

int FakeSockets::start_thread(pthread_t* thread, WrappedThreadStart body, void* argument) {
  auto* start = new ThreadStart{body, argument, live_threads_};
  ++*live_threads_;
  const int result = wrapped::pthread_create.real(thread, nullptr, &run_counted, start);
  if (result != 0) {
    --*live_threads_;
    delete start;
  }
  return result;
}
