#include "tests/link/route_netlink.h"

#include <net/if.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include <cerrno>
#include <memory>
#include <vector>

#include "config/log.h"
#include "packets/error_text.h"
#include "packets/family.h"
#include "packets/packet_reader.h"
#include "packets/route_message.h"
#include "platform/file_descriptor.h"
#include "platform/standard_error.h"

namespace {

constexpr size_t kAnswerSize = 1048576;

const sockaddr_nl kKernel{AF_NETLINK, 0, 0, 0};

// A bound socket; a failure is logged.
FileDescriptor open_route_socket() {
  FileDescriptor fd(socket(AF_NETLINK, SOCK_RAW | SOCK_CLOEXEC, NETLINK_ROUTE));
  if (!fd.valid()) {
    LB_ERROR("Cannot open netlink socket");
  } else if (bind(fd.get(), reinterpret_cast<const sockaddr*>(&kKernel), sizeof(kKernel)) < 0) {
    LB_ERROR("Cannot bind netlink socket");
    fd.reset();
  }
  return fd;
}

bool send_request(int fd, iovec* iov, size_t iov_count) {
  sockaddr_nl destination = kKernel;
  msghdr message{};
  message.msg_name = &destination;
  message.msg_namelen = sizeof(destination);
  message.msg_iov = iov;
  message.msg_iovlen = iov_count;
  if (sendmsg(fd, &message, 0) >= 0) return true;
  LB_ERROR("Cannot talk to rtnetlink");
  return false;
}

// Reads until something final comes; kMore when the socket fails before that.
RouteAnswer read_answer(int fd, const std::string& target, unsigned int ifindex) {
  const auto buffer = std::make_unique_for_overwrite<uint8_t[]>(kAnswerSize);
  RouteAnswer answer;
  while (answer.kind == RouteAnswer::Kind::kMore) {
    errno = 0;
    const ssize_t length = recv(fd, buffer.get(), kAnswerSize, 0);
    if (length < 1) {
      if (errno == EINTR || errno == EAGAIN) continue;
      break;
    }
    answer = read_route_answer({buffer.get(), static_cast<size_t>(length)}, target, ifindex);
  }
  return answer;
}

}  // namespace

bool add_route_attribute(std::vector<uint8_t>& message, uint16_t type,
                         std::span<const uint8_t> data, size_t bound) {
  if (append_attribute(message, type, data, bound)) return true;
  print_on_standard_error("addattr_l ERROR: message exceeded bound of " + std::to_string(bound) +
                          "\n");
  LB_ERROR("rtnl_attr_add");
  return false;
}

int rtnl_exchange(iovec* iov, size_t iov_count, MacAddress* mac_out, const std::string& target,
                  unsigned int ifindex) {
  const FileDescriptor fd = open_route_socket();
  if (!fd.valid() || !send_request(fd.get(), iov, iov_count)) return -1;
  const RouteAnswer answer = read_answer(fd.get(), target, ifindex);
  switch (answer.kind) {
    case RouteAnswer::Kind::kDone:
      return 0;
    case RouteAnswer::Kind::kRefused:
      LB_ERROR("RTNETLINK answers: %s\n", error_text(answer.error).c_str());
      return -1;
    case RouteAnswer::Kind::kFound:
      if (mac_out == nullptr) return -1;
      *mac_out = answer.mac;
      return 1;
    case RouteAnswer::Kind::kMore:
      break;
  }
  return -1;
}

int get_neighbor_mac(const std::string& target, unsigned int ifindex, MacAddress* mac_out) {
  NeighborRequest request =
      make_neighbor_request(RTM_GETNEIGH, NLM_F_REQUEST | NLM_F_ROOT | NLM_F_MATCH);
  iovec iov[] = {{&request.header, sizeof(request.header)},
                 {&request.neighbor, sizeof(request.neighbor)}};
  return rtnl_exchange(iov, 2, mac_out, target, ifindex);
}

int add_neighbor_entry(const std::string& target, const MacAddress& mac,
                       const std::string& ifname) {
  NeighborRequest request =
      make_neighbor_request(RTM_NEWNEIGH, NLM_F_REQUEST | NLM_F_ACK | NLM_F_CREATE);
  request.neighbor.ndm_state = NUD_REACHABLE;
  in6_addr address;
  if (address_from_text(AF_INET6, target, &address) <= 0) {
    LB_ERROR("inet_pton");
    return -1;
  }
  const unsigned int ifindex = if_nametoindex(ifname.c_str());
  if (ifindex == 0) {
    LB_ERROR("if_nametoindex() failed to obtain interface index %s", error_text(errno).c_str());
    return -1;
  }
  request.neighbor.ndm_ifindex = static_cast<int>(ifindex);
  const auto head = bytes_of(request);
  std::vector<uint8_t> message(head.begin(), head.end());
  if (!add_route_attribute(message, NDA_DST, bytes_of(address), kNeighborRequestBound) ||
      !add_route_attribute(message, NDA_LLADDR, mac, kNeighborRequestBound)) {
    return -1;
  }
  iovec iov{message.data(), message.size()};
  return rtnl_exchange(&iov, 1, nullptr, target);
}
