#include "tests/link/link_prober.h"

#include <linux/if_packet.h>
#include <netdb.h>
#include <poll.h>
#include <sys/socket.h>

#include <cerrno>
#include <cstring>
#include <ctime>
#include <map>
#include <memory>
#include <utility>

#include "config/log.h"
#include "platform/clock.h"
#include "platform/mutex.h"
#include "tests/io/detached_thread.h"
#include "tests/io/mutex_failure.h"
#include "tests/io/packet_socket.h"
#include "tests/io/receive_queue.h"

namespace {

constexpr size_t kLargestFrame = 65535;

// Looks at the kernel's table, and the pause between two of them.
constexpr int kPolls = 101;
constexpr timespec kPause{0, 1'000'000};

// 0, or -1 with the failure of `call` logged.
int logged_result(int rc, const char* operation, const char* call, const char* mutex) {
  if (rc == 0) return 0;
  log_mutex_failure(operation, call, mutex, rc);
  return -1;
}

int take(const LinkProtocol& protocol, HandshakeLock& mutex, const char* operation) {
  return logged_result(mutex.lock(), operation, "pthread_mutex_lock", protocol.mutex);
}

int give_back(const LinkProtocol& protocol, HandshakeLock& mutex, const char* operation) {
  return logged_result(mutex.unlock(), operation, "pthread_mutex_unlock", protocol.mutex);
}

void receive_frames(const LinkProtocol& protocol, int fd, WatchedTargets& targets) {
  const auto buffer = std::make_unique_for_overwrite<uint8_t[]>(kLargestFrame);
  pollfd waiting{fd, POLLIN, 0};
  for (;;) {
    const int ready = poll(&waiting, 1, -1);
    if (ready < 0) protocol.log_receive_failure("select");
    if (ready <= 0) return;
    sockaddr_ll from{};
    socklen_t from_size = sizeof(from);
    const ssize_t length = recvfrom(fd, buffer.get(), kLargestFrame, 0,
                                    reinterpret_cast<sockaddr*>(&from), &from_size);
    if (length < 0) {
      if (errno == EINTR) continue;
      protocol.log_receive_failure("recv");
      return;
    }
    // Also what has the tag of a VLAN that is not set up here.
    if (from.sll_pkttype == PACKET_OTHERHOST) continue;
    const std::span<const uint8_t> frame(buffer.get(), static_cast<size_t>(length));
    if (!protocol.handle_frame(frame, static_cast<unsigned int>(from.sll_ifindex), targets)) return;
  }
}

}  // namespace

// Of the whole process, by VRF name; one for each protocol.
struct LinkProber::Registry {
  Mutex mutex;
  std::map<std::string, FileDescriptor> _send_sock LB_GUARDED_BY(mutex);
  std::map<std::string, bool> _recv_started LB_GUARDED_BY(mutex);
};

// What the receiver thread keeps for itself.
struct LinkProber::ThreadArgument {
  const LinkProtocol& protocol;
  std::shared_ptr<HandshakeLock> mutex;
  std::shared_ptr<WatchedTargets> targets;
};

LinkProber::LinkProber(const LinkProtocol& protocol)
    : protocol_(protocol),
      _targets(std::make_shared<WatchedTargets>()),
      _mutex(std::make_shared<HandshakeLock>()) {}

LinkProber::~LinkProber() {
  close_send_socket();
  logged_result(_mutex->destroy(), protocol_.destructor, "pthread_mutex_destroy", protocol_.mutex);
}

void LinkProber::init(const std::string& vrf) {
  _vrf = vrf;
  FileDescriptor fd = open_send_only_packet_socket();
  const bool opened = fd.valid();
  {
    Registry& shared = registry();
    MutexLock lock(shared.mutex);
    shared._send_sock[vrf] = std::move(fd);
    if (opened) shared._recv_started[vrf] = false;
  }
  if (!opened) {
    protocol_.log_no_send_socket(vrf);
    return;
  }
  _mutex = std::make_shared<HandshakeLock>();
  if (_mutex->init_result() != 0) protocol_.log_no_mutex(_mutex->init_result());
}

std::optional<MacAddress> LinkProber::resolve(const std::string& gateway, const std::string& source,
                                              const std::string& ifname) {
  set_target(gateway, source, ifname);
  MacAddress mac{};
  switch (look_first(mac)) {
    case FirstLook::kFound:
      return mac;
    case FirstLook::kFailed:
      return std::nullopt;
    case FirstLook::kUnknown:
      if (!request()) return std::nullopt;
      break;
  }
  return poll_table();
}

void LinkProber::set_target(const std::string& target, const std::string& source,
                            const std::string& ifname) {
  _target = target;
  _source = source;
  _ifname = ifname;
  _targets->watch(target, ifname);
}

bool LinkProber::request() {
  start_receiver();
  if (lock_mutex() != 0) return false;
  send_request();
  return unlock_mutex() == 0;
}

std::optional<MacAddress> LinkProber::poll_table() {
  MacAddress mac{};
  for (int poll = 1; look_up(mac) != 1; ++poll) {
    if (poll == kPolls) return std::nullopt;
    sleep_for(kPause);
  }
  return mac;
}

int LinkProber::lock_mutex() { return take(protocol_, *_mutex, "lock_mutex"); }

int LinkProber::unlock_mutex() { return give_back(protocol_, *_mutex, "unlock_mutex"); }

LinkProber::Registry& LinkProber::registry() const {
  // Leaked on purpose: workers may still run while the process exits.
  static Registry& ipv4 = *new Registry;
  static Registry& ipv6 = *new Registry;
  return protocol_.family.ipv6 ? ipv6 : ipv4;
}

int LinkProber::send_socket() {
  Registry& shared = registry();
  MutexLock lock(shared.mutex);
  FileDescriptor& fd = shared._send_sock[_vrf];
  if (!fd.valid()) fd = open_send_only_packet_socket();
  return fd.get();
}

void LinkProber::close_send_socket() {
  Registry& shared = registry();
  MutexLock lock(shared.mutex);
  shared._send_sock[_vrf].reset();
}

bool LinkProber::mark_started() {
  Registry& shared = registry();
  MutexLock lock(shared.mutex);
  return !std::exchange(shared._recv_started[_vrf], true);
}

void LinkProber::start_receiver() {
  if (!mark_started()) return;
  if (take(protocol_, *_mutex, protocol_.starter) != 0) return;

  auto argument = std::make_unique<ThreadArgument>(ThreadArgument{protocol_, _mutex, _targets});
  const DetachedThread thread = start_detached_thread(&receive, argument.get());
  if (thread.create_result == 0) {
    static_cast<void>(argument.release());  // the thread's own now
  } else {
    give_back(protocol_, *_mutex, protocol_.starter);
    LB_ERROR("<%s> Can't create new thread for %s recv", protocol_.starter, protocol_.thread);
  }
  if (thread.detach_result != 0) {
    LB_ERROR("<%s> Can't detach thread for %s recv", protocol_.starter, protocol_.thread);
  }
}

void* LinkProber::receive(void* argument) {
  const std::unique_ptr<ThreadArgument> own(static_cast<ThreadArgument*>(argument));
  const LinkProtocol& protocol = own->protocol;
  const FileDescriptor fd = protocol.open_receiver();
  if (!fd.valid()) {
    LB_ERROR("<%s> socket() for _recv_sock failed ", protocol.receiver);
    if (protocol.unlock_without_socket) give_back(protocol, *own->mutex, protocol.receiver);
    return nullptr;
  }
  enlarge_receive_queue(fd.get());
  if (give_back(protocol, *own->mutex, protocol.receiver) != 0) return nullptr;
  receive_frames(protocol, fd.get(), *own->targets);
  return nullptr;
}

int first_address(const Family& family, const std::string& name, void* address) {
  addrinfo hints{};
  hints.ai_family = family.address_family;
  hints.ai_socktype = SOCK_STREAM;
  hints.ai_flags = AI_CANONNAME;
  addrinfo* list = nullptr;
  const int rc = getaddrinfo(name.c_str(), nullptr, &hints, &list);
  if (rc != 0) return rc;
  if (family.ipv6) {
    std::memcpy(address, &reinterpret_cast<const sockaddr_in6*>(list->ai_addr)->sin6_addr,
                sizeof(in6_addr));
  } else {
    std::memcpy(address, &reinterpret_cast<const sockaddr_in*>(list->ai_addr)->sin_addr,
                sizeof(in_addr));
  }
  freeaddrinfo(list);
  return 0;
}
