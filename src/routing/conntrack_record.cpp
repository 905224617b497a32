#include "routing/conntrack_record.h"

#include <arpa/inet.h>
#include <libmnl/libmnl.h>
#include <libnetfilter_conntrack/libnetfilter_conntrack.h>
#include <linux/netfilter/nfnetlink.h>
#include <linux/netfilter/nfnetlink_conntrack.h>

#include <cerrno>
#include <ctime>
#include <map>
#include <memory>
#include <vector>

#include "config/log.h"
#include "config/parse_address.h"
#include "packets/error_text.h"
#include "packets/family.h"
#include "packets/icmp_echo.h"
#include "platform/clock.h"
#include "platform/mutex.h"

namespace {

constexpr const char* kOperation = "create_conntrack_record";
constexpr uint32_t kLifetimeSeconds = 32;

struct SocketCloser {
  void operator()(mnl_socket* socket) const { mnl_socket_close(socket); }
};
using Socket = std::unique_ptr<mnl_socket, SocketCloser>;

struct RecordDestroyer {
  void operator()(nf_conntrack* record) const { nfct_destroy(record); }
};
using Record = std::unique_ptr<nf_conntrack, RecordDestroyer>;

// A netlink socket reaches the tracker of the namespace that it was opened in, so each VRF keeps
// one, from the first success to the next failure. Leaked on purpose: nothing closes it at exit.
struct TrackerSockets {
  Mutex mutex;
  std::map<std::string, Socket> _ct_socket LB_GUARDED_BY(mutex);
};

TrackerSockets& tracker_sockets() {
  static TrackerSockets& instance = *new TrackerSockets;
  return instance;
}

int fail_with(const char* call, int error) {
  LB_ERROR("<%s> %s: %s", kOperation, call, error_text(error).c_str());
  return -1;
}

Socket open_socket() {
  // The daemon runs shell commands, which are to inherit nothing.
  Socket socket(mnl_socket_open2(NETLINK_NETFILTER, SOCK_CLOEXEC));
  if (socket == nullptr) {
    fail_with("mnl_socket_open", errno);
    return nullptr;
  }
  if (mnl_socket_bind(socket.get(), 0, MNL_SOCKET_AUTOPID) < 0) {
    fail_with("mnl_socket_bind", errno);
    return nullptr;
  }
  return socket;
}

// Sets both addresses in the tracker's attributes. An IPv4 text is taken as it is, as inet_addr
// takes it.
bool set_addresses(nf_conntrack* record, const std::string& source, const std::string& target,
                   const Family& family) {
  if (!family.ipv6) {
    nfct_set_attr_u32(record, ATTR_IPV4_SRC, inet_addr(source.c_str()));
    nfct_set_attr_u32(record, ATTR_IPV4_DST, inet_addr(target.c_str()));
    return true;
  }
  in6_addr source_address;
  in6_addr target_address;
  if (!parse_address(AF_INET6, source, &source_address) ||
      !parse_address(AF_INET6, target, &target_address)) {
    return false;
  }
  nfct_set_attr(record, ATTR_IPV6_SRC, &source_address);
  nfct_set_attr(record, ATTR_IPV6_DST, &target_address);
  return true;
}

// Describes the echo exchange; the reply direction follows from the request's.
bool describe_exchange(nf_conntrack* record, const std::string& source, const std::string& target,
                       const Family& family) {
  nfct_set_attr_u8(record, ATTR_L3PROTO, static_cast<uint8_t>(family.address_family));
  if (!set_addresses(record, source, target, family)) return false;
  nfct_set_attr_u8(record, ATTR_L4PROTO, family.icmp_protocol);
  nfct_set_attr_u8(record, ATTR_ICMP_TYPE, family.echo_request);
  nfct_set_attr_u8(record, ATTR_ICMP_CODE, 0);
  // As it is on the wire, in network byte order.
  nfct_set_attr_u16(record, ATTR_ICMP_ID, htons(echo_identifier()));
  nfct_setobjopt(record, NFCT_SOPT_SETUP_REPLY);
  nfct_set_attr_u32(record, ATTR_TIMEOUT, kLifetimeSeconds);
  return true;
}

// Sends the request in `message` and reads the kernel's answer; 0, or -1 with a message.
int exchange(mnl_socket* socket, unsigned int port, const nlmsghdr* message,
             std::vector<char>& buffer, const Family& family) {
  const uint32_t sequence = message->nlmsg_seq;
  if (mnl_socket_sendto(socket, message, message->nlmsg_len) < 0) {
    return fail_with("mnl_socket_sendto", errno);
  }
  ssize_t result = mnl_socket_recvfrom(socket, buffer.data(), buffer.size());
  while (result > 0) {
    result =
        mnl_cb_run(buffer.data(), static_cast<size_t>(result), sequence, port, nullptr, nullptr);
    if (result <= 0) break;
    result = mnl_socket_recvfrom(socket, buffer.data(), buffer.size());
  }
  if (result == -1) {
    LB_ERROR("<%s> mnl_socket_recvfrom for ip version %d: %s", kOperation, family.version,
             error_text(errno).c_str());
    return -1;
  }
  return 0;
}

int send_record(mnl_socket* socket, const std::string& source, const std::string& target,
                const Family& family) {
  const unsigned int port = mnl_socket_get_portid(socket);
  std::vector<char> buffer(static_cast<size_t>(MNL_SOCKET_BUFFER_SIZE));
  nlmsghdr* message = mnl_nlmsg_put_header(buffer.data());
  message->nlmsg_type = NFNL_SUBSYS_CTNETLINK << 8 | IPCTNL_MSG_CT_NEW;
  message->nlmsg_flags = NLM_F_REQUEST | NLM_F_ACK | NLM_F_EXCL | NLM_F_CREATE;
  message->nlmsg_seq = static_cast<uint32_t>(wall_now().tv_sec);

  auto* header = static_cast<nfgenmsg*>(mnl_nlmsg_put_extra_header(message, sizeof(nfgenmsg)));
  header->nfgen_family = static_cast<uint8_t>(family.address_family);
  header->version = NFNETLINK_V0;
  header->res_id = 0;

  const Record record(nfct_new());
  // The message names another call than the one that failed; log readers know it so.
  if (record == nullptr) return fail_with("mnl_nlmsg_put_extra_header", errno);
  if (!describe_exchange(record.get(), source, target, family)) return -1;
  nfct_nlmsg_build(message, record.get());
  return exchange(socket, port, message, buffer, family);
}

}  // namespace

int create_conntrack_record(const std::string& source, const std::string& target,
                            const LBWorkerContext& context) {
  TrackerSockets& sockets = tracker_sockets();
  MutexLock lock(sockets.mutex);
  Socket& socket = sockets._ct_socket[context.vrf];
  if (socket == nullptr) socket = open_socket();
  if (socket == nullptr) return -1;
  const int result = send_record(socket.get(), source, target, context.family());
  // After a failure an answer may still be on its way; a new socket cannot read it.
  if (result != 0) socket.reset();
  return result;
}
