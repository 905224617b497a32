#include "tests/io/interface_sockets.h"

#include <netdb.h>
#include <sys/socket.h>

#include <array>
#include <map>
#include <utility>

#include "config/log.h"
#include "tests/io/message_filter.h"
#include "tests/io/mutex_failure.h"
#include "tests/io/network_cookie.h"
#include "tests/io/packet_socket.h"

namespace {

// A small system may have no protocols database; the number is assigned all the same. ICMP is the
// same everywhere and never looked up.
int send_protocol(const Family& family) {
  if (!family.ipv6) return family.icmp_protocol;
  protoent entry{};
  protoent* found = nullptr;
  std::array<char, 1024> buffer;
  if (getprotobyname_r("ipv6-icmp", &entry, buffer.data(), buffer.size(), &found) != 0 ||
      found == nullptr) {
    return family.icmp_protocol;
  }
  return found->p_proto;
}

FileDescriptor open_raw_socket(const Family& family) {
  return FileDescriptor(
      socket(family.address_family, SOCK_RAW | SOCK_CLOEXEC, send_protocol(family)));
}

// False, logged, for a socket that could not be had.
bool keep(FileDescriptor socket, FileDescriptor& kept) {
  if (!socket.valid()) {
    LB_ERROR("wan_lb: failed to acquired socket");
    return false;
  }
  kept = std::move(socket);
  return true;
}

bool keep_sending_socket(FileDescriptor socket, FileDescriptor& kept) {
  if (!keep(std::move(socket), kept)) return false;
  const int on = 1;
  setsockopt(kept.get(), SOL_SOCKET, SO_REUSEADDR, &on, sizeof(on));
  return true;
}

void open_sockets(InterfaceSockets& sockets) {
  const Family& family = sockets.family;
  if (!keep_sending_socket(open_raw_socket(family), sockets.send_socket)) return;
  refuse_all_messages(sockets.send_socket.get(), family);
  if (!keep_sending_socket(open_send_only_packet_socket(), sockets.packet_socket) ||
      !keep(sockets.replies.open(family, sockets.ifname), sockets.recv_socket)) {
    return;
  }
  sockets.network = network_cookie(sockets.recv_socket.get());
  if (sockets.mutex.init_result() != 0) LB_ERROR("wan_lb: error mutex initialization");
}

struct Registry {
  Mutex mutex;
  std::map<std::string, std::shared_ptr<InterfaceSockets>> by_name LB_GUARDED_BY(mutex);
};

// One per family, since sockets are opened under its lock. Leaked on purpose: detached receiver
// threads may outlive static destruction.
Registry& registry(const Family& family) {
  static Registry& ipv4 = *new Registry;
  static Registry& ipv6 = *new Registry;
  return family.ipv6 ? ipv6 : ipv4;
}

}  // namespace

InterfaceSockets::~InterfaceSockets() { replies.leave(recv_socket.get(), family); }

bool InterfaceMutex::lock(const char* operation) {
  const int rc = mutex_.lock();
  if (rc != 0) log_mutex_failure(operation, "pthread_mutex_lock", family_.name, rc);
  return rc == 0;
}

bool InterfaceMutex::unlock(const char* operation) {
  const int rc = mutex_.unlock();
  if (rc != 0) log_mutex_failure(operation, "pthread_mutex_unlock", family_.name, rc);
  return rc == 0;
}

std::shared_ptr<InterfaceSockets> sockets_of(const Family& family, const std::string& ifname,
                                             const ReplySource& replies) {
  Registry& all = registry(family);
  MutexLock lock(all.mutex);
  auto& sockets = all.by_name[ifname];
  if (sockets == nullptr) {
    sockets = std::make_shared<InterfaceSockets>(family, ifname, replies);
    open_sockets(*sockets);
  }
  return sockets;
}

std::vector<std::shared_ptr<InterfaceSockets>> all_sockets(const Family& family) {
  Registry& all = registry(family);
  MutexLock lock(all.mutex);
  std::vector<std::shared_ptr<InterfaceSockets>> sockets;
  for (const auto& [name, of_interface] : all.by_name) sockets.push_back(of_interface);
  return sockets;
}

void close_sockets(const Family& family, const std::string& ifname) {
  Registry& all = registry(family);
  MutexLock lock(all.mutex);
  const auto found = all.by_name.find(ifname);
  if (found == all.by_name.end()) return;
  found->second = std::make_shared<InterfaceSockets>(family, ifname, found->second->replies);
}
