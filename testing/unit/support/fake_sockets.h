// Sockets and threads for tests, without a kernel: the lower half of FakeNetwork.
//
// A socket is one end of a local pair, whatever its kind; what a test writes to the other end,
// `deliver`, is what the daemon's code receives. Nothing that is sent goes anywhere: it is kept in
// `sent`. Threads are counted, and their waits without a time limit end when a test asks for it.
#pragma once

#include <atomic>
#include <cstdint>
#include <functional>
#include <memory>
#include <vector>

#include "support/spin_lock.h"
#include "support/wrapped_calls.h"

class FakeSockets {
 public:
  using Bytes = std::vector<uint8_t>;

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
    int flags = 0;
  };

  FakeSockets();
  ~FakeSockets();
  FakeSockets(const FakeSockets&) = delete;
  FakeSockets& operator=(const FakeSockets&) = delete;

  bool filters = false;                  // whether packet filters take effect
  std::atomic<uint64_t> network_cookie;  // of the namespace of all sockets; none like it before
  std::function<void(const Bytes&)> on_frame;  // called within sendto

  // What was done. Not to be read while threads still work.
  std::vector<Socket> sockets;
  std::vector<Option> options;
  std::vector<Datagram> sent;

  // What socket() does here.
  int open_socket(int domain, int type, int protocol);

  // The `sockets` entry behind a descriptor; the test fails when there is none.
  Socket socket_of(int fd) const;

  // The last socket of that kind, or one with fd -1.
  Socket last_socket(int domain, int type, int protocol) const;

  // Sockets that were opened with that domain and protocol. Any thread.
  int count(int domain, int protocol) const;

  // The options set on a socket, by name.
  std::vector<int> option_names(int fd) const;

  // Lets the daemon's end of `socket` receive a packet.
  static void deliver(const Socket& socket, const Bytes& packet);

  // Puts a frame into the queue of every packet socket of that protocol (network byte order).
  void deliver_frame(int protocol, const Bytes& frame) const;

  // True once the daemon's end is closed.
  static bool is_closed(const Socket& socket);

  // Threads that were started and have not ended.
  int live_threads() const { return live_threads_->load(); }

  // Lets waits without a time limit end, with nothing, once what was delivered has been read; then
  // waits for the threads' ends.
  void end_threads();

 protected:
  static Bytes to_bytes(const void* data, size_t size);

  template <class Signature, class Function>
  void add_hook(WrappedCall<Signature>& call, Function function) {
    hooks_.push_back(std::make_shared<CallHook<Signature>>(call, std::move(function)));
  }

  // For the destructor of a class that adds hooks: they go before what they refer to.
  void remove_hooks() { hooks_.clear(); }

  mutable SpinLock lock_;

 private:
  int get_option(int fd, int level, int name, void* value, socklen_t* size) const;
  int set_option(int fd, int level, int name, const void* value, socklen_t size);
  ssize_t send_datagram(int fd, const void* data, size_t size, int flags, const sockaddr* address,
                        socklen_t address_size);
  int wait(pollfd* fds, nfds_t count, int timeout) const;
  int start_thread(pthread_t* thread, WrappedThreadStart body, void* argument);

  std::vector<int> peers_;  // of all sockets, also of those that a test has struck off its list
  std::atomic<bool> ending_{false};
  std::shared_ptr<std::atomic<int>> live_threads_ = std::make_shared<std::atomic<int>>(0);
  std::vector<std::shared_ptr<void>> hooks_;
};
