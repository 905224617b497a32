// Resolving the link-layer address of a next hop: what the ARP and the neighbour prober share.
//
// A prober belongs to one worker, and there is one per VRF and family. The kernel's own table is
// the only cache: the worker reads it, and where it lacks the address it sends a request through
// the VRF's sending socket. Answers are picked up by one detached receiver thread per VRF, started
// with the first request and running from then on, also when the prober goes; it writes the answers
// for watched targets into the kernel's table, where the worker finds them.
//
// The receiver and the worker share two objects, which both own: the handshake lock, held from
// the receiver's start until it listens, so that no request goes out before that, and the watched
// targets. Everything else belongs to the worker.
#pragma once

#include <cstddef>
#include <ctime>
#include <map>
#include <memory>
#include <optional>
#include <span>
#include <string>

#include "packets/ethernet.h"
#include "packets/family.h"
#include "platform/clock.h"
#include "platform/file_descriptor.h"
#include "platform/mutex.h"
#include "tests/link/handshake_lock.h"

// The addresses whose answers are wanted, each with the interface it is reached by. Entries are
// never removed. Any thread.
class WatchedTargets {
 public:
  using Map = std::map<std::string, std::string>;

  // Of addresses that nobody watches, at most this many are noted: whoever is on the wire can send
  // answers from any number of addresses, and must not be able to spend the memory.
  static constexpr size_t kMostUnwatched = 256;

  void watch(const std::string& target, const std::string& ifname) LB_EXCLUDES(mutex_);

  // The interface of `address`; empty for one that is not watched, which gains an entry with an
  // empty name while there are fewer than kMostUnwatched of them.
  std::string interface_of(const std::string& address) LB_EXCLUDES(mutex_);

  Map snapshot() const LB_EXCLUDES(mutex_);

 private:
  mutable Mutex mutex_;
  Map _targets LB_GUARDED_BY(mutex_);
  size_t unwatched_ LB_GUARDED_BY(mutex_) = 0;  // entries with an empty name
};

// What the two protocols do differently; specialised beside each prober with
//   kMutex, kDestructor, kStarter, kReceiver, kThread   words of the messages
//   kUnlockWithoutSocket         whether a receiver without a socket gives the handshake lock back
//   open_receiver()              the receiver's socket
//   handle_frame(frame, targets) what is done with a frame; false ends the receiver
//   log_no_send_socket(vrf), log_no_mutex(rc), log_receive_failure(call)
template <class Family>
struct LinkProtocol;

// The first address that `name` resolves to. 0, or the failure of getaddrinfo.
template <class Family>
int first_address(const std::string& name, typename Family::Address& address);

template <class Family>
class LinkProber {
 public:
  LinkProber(const LinkProber&) = delete;
  LinkProber& operator=(const LinkProber&) = delete;

  // Opens the sending socket of `vrf`, the namespace that the calling thread is in. Failures are
  // logged; the prober then resolves what the kernel knows, and its requests fail.
  void init(const std::string& vrf);

  // The address wanted from now on, which is also watched for answers.
  void set_target(const std::string& target, const std::string& source, const std::string& ifname);

  // The handshake lock; 0, or -1 (logged).
  int lock_mutex();
  int unlock_mutex();

  // Sends a request by calling `send`, not before the VRF's receiver listens. False when the
  // handshake lock failed.
  template <class Send>
  bool request_address(const Send& send) {
    start_receiver();
    if (lock_mutex() != 0) return false;
    send();
    return unlock_mutex() == 0;
  }

  // For reading only; the receiver adds to them.
  const WatchedTargets& targets() const { return *_targets; }

 protected:
  LinkProber();
  ~LinkProber();

  // Starts the VRF's receiver thread unless that was tried before.
  void start_receiver();

  // The VRF's sending socket, -1 where there is none.
  int send_socket() const;

  // Closes the VRF's sending socket; sends through it fail from then on.
  void close_send_socket();

  std::string _target;
  std::string _source;
  std::string _ifname;
  std::string _vrf;

 private:
  using Protocol = LinkProtocol<Family>;

  // Of the whole process, by VRF name.
  struct Registry {
    Mutex mutex;
    std::map<std::string, FileDescriptor> _send_sock LB_GUARDED_BY(mutex);
    std::map<std::string, bool> _recv_started LB_GUARDED_BY(mutex);
  };

  // What the receiver thread keeps for itself.
  struct ThreadArgument {
    std::shared_ptr<HandshakeLock> mutex;
    std::shared_ptr<WatchedTargets> targets;
  };

  static Registry& registry();
  static bool mark_started(const std::string& vrf);
  static int lock(HandshakeLock& mutex, const char* operation);
  static int unlock(HandshakeLock& mutex, const char* operation);
  static void* receive(void* argument);
  static void receive_frames(int fd, WatchedTargets& targets);

  std::shared_ptr<WatchedTargets> _targets;
  std::shared_ptr<HandshakeLock> _mutex;
};

extern template class LinkProber<Ipv4>;
extern template class LinkProber<Ipv6>;

// Looks an address up until it is there: up to 101 times, with a pause of a millisecond between two
// calls. Nothing when the last call missed too.
template <class Lookup>
std::optional<MacAddress> poll_link_address(const Lookup& lookup) {
  constexpr int kPolls = 101;
  constexpr timespec kPause{0, 1'000'000};
  MacAddress mac{};
  for (int poll = 1; lookup(mac) != 1; ++poll) {
    if (poll == kPolls) return std::nullopt;
    sleep_for(kPause);
  }
  return mac;
}
