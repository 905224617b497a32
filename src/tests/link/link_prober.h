// Resolving the link-layer address of a next hop: what the ARP and the neighbour prober share.
//
// A prober belongs to one worker, and there is one per VRF and family. The kernel's own table is
// the only cache: the worker reads it, and where it lacks the address it sends a request through
// the VRF's sending socket. Answers are picked up by one detached receiver thread per VRF, started
// with the first request and running from then on, also when the prober goes; it writes the answers
// for watched targets into the kernel's table, where the worker finds them.
//
//   worker:    resolve -> look_first -> (request -> send_request) -> look_up ... look_up
//   receiver:  frame -> LinkProtocol::handle_frame -> the kernel's table
//
// The receiver and the worker share two objects, which both own: the handshake lock, held from
// the receiver's start until it listens, so that no request goes out before that, and the watched
// targets. Everything else belongs to the worker.
#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <span>
#include <string>

#include "packets/ethernet.h"
#include "packets/family.h"
#include "platform/file_descriptor.h"
#include "tests/link/handshake_lock.h"
#include "tests/link/link_info.h"
#include "tests/link/watched_targets.h"

// What the two protocols do differently outside of a look-up; one constant object each. An object
// of its own and no virtual functions, because the receiver thread uses it longer than its prober
// lives.
struct LinkProtocol {
  const Family& family;

  // Words of the messages.
  const char* destructor;
  const char* mutex;
  const char* starter;
  const char* receiver;
  const char* thread;

  // Whether a receiver without a socket gives the handshake lock back.
  bool unlock_without_socket;

  // The receiver's socket; not valid on failure, with errno set.
  FileDescriptor (*open_receiver)();

  // What is done with a frame that came by the interface with index `ifindex`, on the receiver's
  // thread; false ends the receiver.
  bool (*handle_frame)(std::span<const uint8_t> frame, unsigned int ifindex,
                       WatchedTargets& targets);

  void (*log_no_send_socket)(const std::string& vrf);
  void (*log_no_mutex)(int rc);
  void (*log_receive_failure)(const char* call);
};

// What the kernel's table says of a target before a request is sent.
enum class FirstLook {
  kFound,    // the address is there
  kUnknown,  // a request is needed
  kFailed,   // the table cannot be asked
};

class LinkProber {
 public:
  LinkProber(const LinkProber&) = delete;
  LinkProber& operator=(const LinkProber&) = delete;
  virtual ~LinkProber();

  // Opens the sending socket of `vrf`, the namespace that the calling thread is in. Failures are
  // logged; the prober then resolves what the kernel knows, and its requests fail.
  void init(const std::string& vrf);

  // The link-layer address of `gateway` for frames from `source` by `ifname`: asks the kernel's
  // table, sends a request where that has no entry, and waits about a tenth of a second at most.
  // Nothing when the address did not come. The prober's worker only.
  std::optional<MacAddress> resolve(const std::string& gateway, const std::string& source,
                                    const std::string& ifname);

  // The steps of resolve. The address wanted from now on, which is also watched for answers:
  void set_target(const std::string& target, const std::string& source, const std::string& ifname);

  // The handshake lock; 0, or -1 (logged).
  int lock_mutex();
  int unlock_mutex();

  // The worker's questions to the kernel, also for its probes.
  LinkInfo& link() { return link_; }

  // For reading only; the receiver adds to them.
  const WatchedTargets& targets() const { return *_targets; }

 protected:
  explicit LinkProber(const LinkProtocol& protocol);

  // Looks before any request; `mac` is the address when it is kFound.
  virtual FirstLook look_first(MacAddress& mac) = 0;

  // One look into the kernel's table: 1 with the address, any other value without.
  virtual int look_up(MacAddress& mac) = 0;

  // Sends one request for the target; what fails is told by the prober.
  virtual void send_request() = 0;

  // Starts the VRF's receiver thread unless that was tried before.
  void start_receiver();

  // The VRF's sending socket, opened anew where it was closed; -1 when that fails.
  int send_socket();

  // Closes the VRF's sending socket; the next send_socket opens a new one.
  void close_send_socket();

  std::string _target;
  std::string _source;
  std::string _ifname;
  std::string _vrf;

 private:
  struct Registry;
  struct ThreadArgument;

  Registry& registry() const;
  bool mark_started();

  // Sends a request, not before the VRF's receiver listens. False when the handshake lock failed.
  bool request();

  // Looks the target up until it is there, for about a tenth of a second.
  std::optional<MacAddress> poll_table();

  static void* receive(void* argument);

  const LinkProtocol& protocol_;
  LinkInfo link_;
  std::shared_ptr<WatchedTargets> _targets;
  std::shared_ptr<HandshakeLock> _mutex;
};

// The first address of the family that `name` resolves to, in network byte order (in_addr or
// in6_addr). 0, or the failure of getaddrinfo.
int first_address(const Family& family, const std::string& name, void* address);
