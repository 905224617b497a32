#include "tests/link/link_prober.h"

#include <linux/if_ether.h>
#include <netdb.h>
#include <poll.h>
#include <sys/socket.h>

#include <cerrno>
#include <cstddef>
#include <cstring>
#include <utility>
#include <vector>

#include "config/log.h"
#include "tests/io/detached_thread.h"
#include "tests/io/mutex_failure.h"
#include "tests/io/packet_socket.h"
#include "tests/io/receive_queue.h"
#include "tests/link/arp_prober.h"
#include "tests/link/neighbor_prober.h"

void WatchedTargets::watch(const std::string& target, const std::string& ifname) {
  MutexLock lock(mutex_);
  const auto [entry, added] = _targets.try_emplace(target);
  if (!added && entry->second.empty()) --unwatched_;
  entry->second = ifname;
  if (ifname.empty()) ++unwatched_;
}

std::string WatchedTargets::interface_of(const std::string& address) {
  MutexLock lock(mutex_);
  const auto found = _targets.find(address);
  if (found != _targets.end()) return found->second;
  if (unwatched_ < kMostUnwatched) {
    _targets.emplace(address, std::string());
    ++unwatched_;
  }
  return {};
}

WatchedTargets::Map WatchedTargets::snapshot() const {
  MutexLock lock(mutex_);
  return _targets;
}

template <class Family>
int first_address(const std::string& name, typename Family::Address& address) {
  addrinfo hints{};
  hints.ai_family = Family::kFamily;
  hints.ai_socktype = SOCK_STREAM;
  hints.ai_flags = AI_CANONNAME;
  addrinfo* list = nullptr;
  const int rc = getaddrinfo(name.c_str(), nullptr, &hints, &list);
  if (rc != 0) return rc;
  constexpr size_t kOffset =
      Family::kIpv6 ? offsetof(sockaddr_in6, sin6_addr) : offsetof(sockaddr_in, sin_addr);
  std::memcpy(&address, reinterpret_cast<const char*>(list->ai_addr) + kOffset, sizeof(address));
  freeaddrinfo(list);
  return 0;
}

template int first_address<Ipv4>(const std::string& name, in_addr& address);
template int first_address<Ipv6>(const std::string& name, in6_addr& address);

template <class Family>
LinkProber<Family>::LinkProber()
    : _targets(std::make_shared<WatchedTargets>()), _mutex(std::make_shared<HandshakeLock>()) {}

template <class Family>
LinkProber<Family>::~LinkProber() {
  close_send_socket();
  const int rc = _mutex->destroy();
  if (rc != 0) {
    log_mutex_failure(Protocol::kDestructor, "pthread_mutex_destroy", Protocol::kMutex, rc);
  }
}

template <class Family>
void LinkProber<Family>::init(const std::string& vrf) {
  _vrf = vrf;
  FileDescriptor fd = open_send_only_packet_socket(ETH_P_ALL);
  const bool opened = fd.valid();
  {
    Registry& shared = registry();
    MutexLock lock(shared.mutex);
    shared._send_sock[vrf] = std::move(fd);
    if (opened) shared._recv_started[vrf] = false;
  }
  if (!opened) {
    Protocol::log_no_send_socket(vrf);
    return;
  }
  _mutex = std::make_shared<HandshakeLock>();
  if (_mutex->init_result() != 0) Protocol::log_no_mutex(_mutex->init_result());
}

template <class Family>
void LinkProber<Family>::set_target(const std::string& target, const std::string& source,
                                    const std::string& ifname) {
  _target = target;
  _source = source;
  _ifname = ifname;
  _targets->watch(target, ifname);
}

template <class Family>
int LinkProber<Family>::lock_mutex() {
  return lock(*_mutex, "lock_mutex");
}

template <class Family>
int LinkProber<Family>::unlock_mutex() {
  return unlock(*_mutex, "unlock_mutex");
}

template <class Family>
int LinkProber<Family>::lock(HandshakeLock& mutex, const char* operation) {
  const int rc = mutex.lock();
  if (rc == 0) return 0;
  log_mutex_failure(operation, "pthread_mutex_lock", Protocol::kMutex, rc);
  return -1;
}

template <class Family>
int LinkProber<Family>::unlock(HandshakeLock& mutex, const char* operation) {
  const int rc = mutex.unlock();
  if (rc == 0) return 0;
  log_mutex_failure(operation, "pthread_mutex_unlock", Protocol::kMutex, rc);
  return -1;
}

template <class Family>
typename LinkProber<Family>::Registry& LinkProber<Family>::registry() {
  // Leaked on purpose: workers may still run while the process exits.
  static Registry& registry = *new Registry;
  return registry;
}

template <class Family>
int LinkProber<Family>::send_socket() const {
  Registry& shared = registry();
  MutexLock lock(shared.mutex);
  return shared._send_sock[_vrf].get();
}

template <class Family>
void LinkProber<Family>::close_send_socket() {
  Registry& shared = registry();
  MutexLock lock(shared.mutex);
  shared._send_sock[_vrf].reset();
}

template <class Family>
bool LinkProber<Family>::mark_started(const std::string& vrf) {
  Registry& shared = registry();
  MutexLock lock(shared.mutex);
  return !std::exchange(shared._recv_started[vrf], true);
}

template <class Family>
void LinkProber<Family>::start_receiver() {
  if (!mark_started(_vrf)) return;
  if (lock(*_mutex, Protocol::kStarter) != 0) return;

  auto argument = std::make_unique<ThreadArgument>(ThreadArgument{_mutex, _targets});
  const DetachedThread thread = start_detached_thread(&receive, argument.get());
  if (thread.create_result == 0) {
    static_cast<void>(argument.release());  // the thread's own now
  } else {
    unlock(*_mutex, Protocol::kStarter);
    LB_ERROR("<%s> Can't create new thread for %s recv", Protocol::kStarter, Protocol::kThread);
  }
  if (thread.detach_result != 0) {
    LB_ERROR("<%s> Can't detach thread for %s recv", Protocol::kStarter, Protocol::kThread);
  }
}

template <class Family>
void* LinkProber<Family>::receive(void* argument) {
  const std::unique_ptr<ThreadArgument> own(static_cast<ThreadArgument*>(argument));
  const FileDescriptor fd = Protocol::open_receiver();
  if (!fd.valid()) {
    LB_ERROR("<%s> socket() for _recv_sock failed ", Protocol::kReceiver);
    if (Protocol::kUnlockWithoutSocket) unlock(*own->mutex, Protocol::kReceiver);
    return nullptr;
  }
  enlarge_receive_queue(fd.get());
  if (unlock(*own->mutex, Protocol::kReceiver) != 0) return nullptr;
  receive_frames(fd.get(), *own->targets);
  return nullptr;
}

template <class Family>
void LinkProber<Family>::receive_frames(int fd, WatchedTargets& targets) {
  std::vector<uint8_t> buffer(65535);
  pollfd waiting{fd, POLLIN, 0};
  for (;;) {
    const int ready = poll(&waiting, 1, -1);
    if (ready < 0) Protocol::log_receive_failure("select");
    if (ready <= 0) return;
    const ssize_t length = recv(fd, buffer.data(), buffer.size(), 0);
    if (length < 0) {
      if (errno == EINTR) continue;
      Protocol::log_receive_failure("recv");
      return;
    }
    if (!Protocol::handle_frame({buffer.data(), static_cast<size_t>(length)}, targets)) return;
  }
}

template class LinkProber<Ipv4>;
template class LinkProber<Ipv6>;
