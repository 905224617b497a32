// The sockets of an interface, made once per Linux name and family and shared by all its tests.
#pragma once

#include <atomic>
#include <map>
#include <memory>
#include <string>

#include "platform/file_descriptor.h"
#include "platform/mutex.h"

// The mutex of an interface: it orders what the worker and the receiver do to the interface's
// probes. The probes themselves are guarded by their table's lock, so a failure is logged and the
// work can go on. `operation` is the name that the message shows.
class InterfaceMutex {
 public:
  int init_result() const { return mutex_.init_result(); }

  // False when the lock could not be taken (logged).
  template <class Family>
  bool lock(const char* operation) LB_NO_THREAD_SAFETY_ANALYSIS;
  template <class Family>
  bool unlock(const char* operation) LB_NO_THREAD_SAFETY_ANALYSIS;

 private:
  Mutex mutex_;
};

// kReading: from before a reply leaves the queue until its probe is marked.
enum class ReceiverStage { kAbsent, kWaiting, kReading };

// Descriptors are fixed once made; -1 where a socket could not be had.
struct InterfaceSockets {
  FileDescriptor send_socket;    // raw ICMP: requests of the raw path
  FileDescriptor packet_socket;  // whole Ethernet frames
  FileDescriptor recv_socket;    // raw ICMP: replies
  InterfaceMutex mutex;
  std::atomic<bool> receiver_running{false};  // also when its thread could not be started
  std::atomic<ReceiverStage> receiver_stage{ReceiverStage::kAbsent};
};

// The sockets of a family's interfaces, by Linux name. Any thread.
template <class Family>
class SocketRegistry {
 public:
  // The sockets of `ifname`, made by the first call for the name; what fails then is logged and not
  // tried again. The sockets belong to the calling thread's network namespace.
  static std::shared_ptr<InterfaceSockets> acquire(const std::string& ifname);

  // Closes the sockets of `ifname` (a receiver that still reads keeps its own open). The name stays
  // known: a later acquire makes no new ones.
  static void release(const std::string& ifname);
};
