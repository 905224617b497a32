// The sockets of an interface, made once per Linux name and family and shared by all its tests.
// The registry, the tests of the interface while they use them, and its receiver own them together.
#pragma once

#include <atomic>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "packets/family.h"
#include "platform/file_descriptor.h"
#include "platform/mutex.h"
#include "tests/io/reply_source.h"

// The mutex of an interface, taken to enter a probe, to mark it answered and to settle it. It
// exists for this hand-shake between worker and receiver and for its messages, which administrators
// know: the probes themselves are guarded by their table's lock. Where it cannot be taken no probe
// is sent; all else goes on. `operation` is the name that the message shows.
class InterfaceMutex {
 public:
  explicit InterfaceMutex(const Family& family) : family_(family) {}

  int init_result() const { return mutex_.init_result(); }

  // False when the lock could not be taken or given back (logged).
  bool lock(const char* operation) LB_NO_THREAD_SAFETY_ANALYSIS;
  bool unlock(const char* operation) LB_NO_THREAD_SAFETY_ANALYSIS;

 private:
  const Family& family_;
  Mutex mutex_;
};

// The life of an interface's receiver thread (reply_receiver.h).
enum class ReceiverState {
  kAbsent,   // never started, or ended: the next cycle starts one
  kFailed,   // could not be started, which is not tried again
  kWaiting,  // for a reply, also while its thread starts
  kReading,  // from before a reply leaves the queue until its probe is marked
};

// Descriptors are fixed once made, so any thread may read them; -1 where a socket could not be had.
struct InterfaceSockets {
  InterfaceSockets(const Family& of_family, std::string of_interface, const ReplySource& from)
      : family(of_family), ifname(std::move(of_interface)), replies(from), mutex(of_family) {}
  ~InterfaceSockets();
  InterfaceSockets(const InterfaceSockets&) = delete;
  InterfaceSockets& operator=(const InterfaceSockets&) = delete;

  const Family& family;
  const std::string ifname;         // Linux name
  const ReplySource& replies;       // where recv_socket reads them
  FileDescriptor send_socket;       // raw ICMP: requests of the raw path
  FileDescriptor packet_socket;     // whole Ethernet frames
  FileDescriptor recv_socket;       // replies
  std::optional<uint64_t> network;  // the namespace of the sockets (network_cookie.h)
  InterfaceMutex mutex;
  std::atomic<ReceiverState> receiver_state{ReceiverState::kAbsent};
};

// The sockets of the interface with the Linux name `ifname`, made by the first call for the name in
// the family, which also settles where replies are read; what fails then is logged and not tried
// again. The sockets belong to the network namespace of the thread that made them. Any thread.
std::shared_ptr<InterfaceSockets> sockets_of(const Family& family, const std::string& ifname,
                                             const ReplySource& replies = kRawReplies);

// Those of all interfaces of the family. Any thread.
std::vector<std::shared_ptr<InterfaceSockets>> all_sockets(const Family& family);

// Closes the sockets of `ifname` (a receiver that still reads keeps its own open). The name stays
// known: later calls of sockets_of make no new ones. Any thread.
void close_sockets(const Family& family, const std::string& ifname);
