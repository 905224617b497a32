#include "tests/io/interface_sockets.h"

#include <netdb.h>
#include <sys/socket.h>

#include <array>

#include "config/log.h"
#include "packets/ethernet.h"
#include "packets/family.h"
#include "packets/ip_headers.h"
#include "tests/io/mutex_failure.h"
#include "tests/io/packet_socket.h"
#include "tests/io/receive_queue.h"

namespace {

template <class Family>
struct SocketTraits;

template <>
struct SocketTraits<Ipv4> {
  static constexpr uint16_t kEtherType = kEtherTypeIpv4;
  static constexpr int kReceiveProtocol = kProtocolIcmp;
  static int send_protocol() { return kProtocolIcmp; }
};

template <>
struct SocketTraits<Ipv6> {
  static constexpr uint16_t kEtherType = kEtherTypeIpv6;
  static constexpr int kReceiveProtocol = kProtocolIcmpv6;
  // A small system may have no protocols database; the number is assigned all the same.
  static int send_protocol() {
    protoent entry{};
    protoent* found = nullptr;
    std::array<char, 1024> buffer;
    if (getprotobyname_r("ipv6-icmp", &entry, buffer.data(), buffer.size(), &found) != 0 ||
        found == nullptr) {
      return kProtocolIcmpv6;
    }
    return found->p_proto;
  }
};

// A socket for sending; SO_REUSEADDR is set on it.
bool keep_sending_socket(FileDescriptor socket, FileDescriptor& kept) {
  if (!socket.valid()) {
    LB_ERROR("wan_lb: failed to acquired socket");
    return false;
  }
  const int on = 1;
  setsockopt(socket.get(), SOL_SOCKET, SO_REUSEADDR, &on, sizeof(on));
  refuse_input(socket.get());
  kept = std::move(socket);
  return true;
}

template <class Family>
FileDescriptor open_raw_socket(int protocol) {
  return FileDescriptor(::socket(Family::kFamily, SOCK_RAW | SOCK_CLOEXEC, protocol));
}

template <class Family>
void open_sockets(InterfaceSockets& sockets) {
  using Traits = SocketTraits<Family>;
  if (!keep_sending_socket(open_raw_socket<Family>(Traits::send_protocol()), sockets.send_socket) ||
      !keep_sending_socket(open_packet_socket(Traits::kEtherType), sockets.packet_socket)) {
    return;
  }
  sockets.recv_socket = open_raw_socket<Family>(Traits::kReceiveProtocol);
  if (!sockets.recv_socket.valid()) {
    LB_ERROR("wan_lb: failed to acquired socket");
    return;
  }
  refuse_foreign_messages<Family>(sockets.recv_socket.get());
  if (sockets.mutex.init_result() != 0) LB_ERROR("wan_lb: error mutex initialization");
}

struct Registry {
  Mutex mutex;
  std::map<std::string, std::shared_ptr<InterfaceSockets>> by_name LB_GUARDED_BY(mutex);
};

// Leaked on purpose: detached receiver threads may outlive static destruction.
template <class Family>
Registry& registry() {
  static Registry& instance = *new Registry;
  return instance;
}

}  // namespace

template <class Family>
bool InterfaceMutex::lock(const char* operation) {
  const int rc = mutex_.lock();
  if (rc != 0) log_mutex_failure(operation, "pthread_mutex_lock", Family::kName, rc);
  return rc == 0;
}

template <class Family>
bool InterfaceMutex::unlock(const char* operation) {
  const int rc = mutex_.unlock();
  if (rc != 0) log_mutex_failure(operation, "pthread_mutex_unlock", Family::kName, rc);
  return rc == 0;
}

template <class Family>
std::shared_ptr<InterfaceSockets> SocketRegistry<Family>::acquire(const std::string& ifname) {
  Registry& all = registry<Family>();
  MutexLock lock(all.mutex);
  auto& sockets = all.by_name[ifname];
  if (sockets == nullptr) {
    sockets = std::make_shared<InterfaceSockets>();
    open_sockets<Family>(*sockets);
  }
  return sockets;
}

template <class Family>
void SocketRegistry<Family>::release(const std::string& ifname) {
  Registry& all = registry<Family>();
  MutexLock lock(all.mutex);
  const auto found = all.by_name.find(ifname);
  if (found != all.by_name.end()) found->second = std::make_shared<InterfaceSockets>();
}

template bool InterfaceMutex::lock<Ipv4>(const char*);
template bool InterfaceMutex::lock<Ipv6>(const char*);
template bool InterfaceMutex::unlock<Ipv4>(const char*);
template bool InterfaceMutex::unlock<Ipv6>(const char*);
template class SocketRegistry<Ipv4>;
template class SocketRegistry<Ipv6>;
