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
#include <utility>
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
// one, from the first success to the next failure.
struct Tracker {
  Mutex mutex;
  Socket _ct_socket LB_GUARDED_BY(mutex);
};

struct Trackers {
  Mutex mutex;
  std::map<std::string, Tracker> by_vrf LB_GUARDED_BY(mutex);
};

// Entries are never removed. Leaked on purpose: nothing closes the sockets at exit.
Tracker& tracker_of(const std::string& vrf) {
  static Trackers& all = *new Trackers;
  MutexLock lock(all.mutex);
  return all.by_vrf[vrf];
}

// What went wrong, to be logged once no lock is held: a log that is slow must not hold up the
// tracker's other callers.
struct Failure {
  enum class Kind { kNone, kCall, kAddress, kAnswer };
  Kind kind = Kind::kNone;
  int error = 0;               // an errno value; kAddress: what the conversion said
  const char* call = nullptr;  // kCall: its name

  bool none() const { return kind == Kind::kNone; }
};

Failure failed_call(const char* call) { return {Failure::Kind::kCall, errno, call}; }

void log_failure(const Failure& failure, const Family& family) {
  const std::string error = error_text(failure.error);
  switch (failure.kind) {
    case Failure::Kind::kNone:
      break;
    case Failure::Kind::kCall:
      LB_ERROR("<%s> %s: %s", kOperation, failure.call, error.c_str());
      break;
    case Failure::Kind::kAddress:
      log_no_address(failure.error);
      break;
    case Failure::Kind::kAnswer:
      LB_ERROR("<%s> mnl_socket_recvfrom for ip version %d: %s", kOperation, family.version,
               error.c_str());
      break;
  }
}

Failure open_socket(Socket& kept) {
  // The daemon runs shell commands, which are to inherit nothing.
  Socket socket(mnl_socket_open2(NETLINK_NETFILTER, SOCK_CLOEXEC));
  if (socket == nullptr) return failed_call("mnl_socket_open");
  if (mnl_socket_bind(socket.get(), 0, MNL_SOCKET_AUTOPID) < 0) {
    return failed_call("mnl_socket_bind");
  }
  kept = std::move(socket);
  return {};
}

// One echo exchange, as the tracker is told of it.
struct Exchange {
  const Family& family;
  const std::string& source;
  const std::string& target;
};

// Sets both addresses in the tracker's attributes. An IPv4 text is taken as it is, as inet_addr
// takes it.
Failure set_addresses(nf_conntrack* record, const Exchange& exchange) {
  if (!exchange.family.ipv6) {
    nfct_set_attr_u32(record, ATTR_IPV4_SRC, inet_addr(exchange.source.c_str()));
    nfct_set_attr_u32(record, ATTR_IPV4_DST, inet_addr(exchange.target.c_str()));
    return {};
  }
  in6_addr source;
  in6_addr target;
  int parsed = address_from_text(AF_INET6, exchange.source, &source);
  if (parsed == 1) parsed = address_from_text(AF_INET6, exchange.target, &target);
  if (parsed != 1) return {Failure::Kind::kAddress, parsed, nullptr};
  nfct_set_attr(record, ATTR_IPV6_SRC, &source);
  nfct_set_attr(record, ATTR_IPV6_DST, &target);
  return {};
}

// Describes the echo exchange; the reply direction follows from the request's.
Failure describe(nf_conntrack* record, const Exchange& exchange) {
  const Family& family = exchange.family;
  nfct_set_attr_u8(record, ATTR_L3PROTO, static_cast<uint8_t>(family.address_family));
  if (const Failure failure = set_addresses(record, exchange); !failure.none()) return failure;
  nfct_set_attr_u8(record, ATTR_L4PROTO, family.icmp_protocol);
  nfct_set_attr_u8(record, ATTR_ICMP_TYPE, family.echo_request);
  nfct_set_attr_u8(record, ATTR_ICMP_CODE, 0);
  // As it is on the wire, in network byte order.
  nfct_set_attr_u16(record, ATTR_ICMP_ID, htons(echo_identifier()));
  nfct_setobjopt(record, NFCT_SOPT_SETUP_REPLY);
  nfct_set_attr_u32(record, ATTR_TIMEOUT, kLifetimeSeconds);
  return {};
}

// Sends the request in `buffer` and reads the kernel's answer.
Failure put(mnl_socket* socket, std::vector<char>& buffer) {
  const auto* const message = reinterpret_cast<const nlmsghdr*>(buffer.data());
  const unsigned int port = mnl_socket_get_portid(socket);
  const uint32_t sequence = message->nlmsg_seq;
  if (mnl_socket_sendto(socket, message, message->nlmsg_len) < 0) {
    return failed_call("mnl_socket_sendto");
  }
  ssize_t result = mnl_socket_recvfrom(socket, buffer.data(), buffer.size());
  while (result > 0) {
    result =
        mnl_cb_run(buffer.data(), static_cast<size_t>(result), sequence, port, nullptr, nullptr);
    if (result <= 0) break;
    result = mnl_socket_recvfrom(socket, buffer.data(), buffer.size());
  }
  if (result == -1) return {Failure::Kind::kAnswer, errno, nullptr};
  return {};
}

// Asks for a record with these netlink flags besides those of every request.
Failure send_record(mnl_socket* socket, const Exchange& exchange, uint16_t flags) {
  std::vector<char> buffer(static_cast<size_t>(MNL_SOCKET_BUFFER_SIZE));
  nlmsghdr* message = mnl_nlmsg_put_header(buffer.data());
  message->nlmsg_type = NFNL_SUBSYS_CTNETLINK << 8 | IPCTNL_MSG_CT_NEW;
  message->nlmsg_flags = static_cast<uint16_t>(NLM_F_REQUEST | NLM_F_ACK | flags);
  message->nlmsg_seq = static_cast<uint32_t>(wall_now().tv_sec);

  auto* header = static_cast<nfgenmsg*>(mnl_nlmsg_put_extra_header(message, sizeof(nfgenmsg)));
  header->nfgen_family = static_cast<uint8_t>(exchange.family.address_family);
  header->version = NFNETLINK_V0;
  header->res_id = 0;

  const Record record(nfct_new());
  // The message names another call than the one that failed; log readers know it so.
  if (record == nullptr) return failed_call("mnl_nlmsg_put_extra_header");
  if (const Failure failure = describe(record.get(), exchange); !failure.none()) return failure;
  nfct_nlmsg_build(message, record.get());
  return put(socket, buffer);
}

Failure create(Tracker& tracker, const Exchange& exchange) {
  MutexLock lock(tracker.mutex);
  Socket& socket = tracker._ct_socket;
  if (socket == nullptr) {
    if (const Failure failure = open_socket(socket); !failure.none()) return failure;
  }
  const Failure failure = send_record(socket.get(), exchange, NLM_F_EXCL | NLM_F_CREATE);
  if (failure.none()) return failure;
  const bool is_known = failure.kind == Failure::Kind::kAnswer && failure.error == EEXIST;
  // The record of an exchange that the tracker knows already gets its full time again, so that the
  // reply to this request finds it.
  if (is_known && send_record(socket.get(), exchange, 0).none()) return failure;
  // After another failure an answer may still be on its way; a new socket cannot read it.
  socket.reset();
  return failure;
}

}  // namespace

int create_conntrack_record(const std::string& source, const std::string& target,
                            const LBWorkerContext& context) {
  const Family& family = context.family();
  const Failure failure = create(tracker_of(context.vrf), {family, source, target});
  log_failure(failure, family);
  return failure.none() ? 0 : -1;
}
