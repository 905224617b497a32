#include "tests/link/neighbor_table.h"

#include <sys/socket.h>

#include <array>
#include <cerrno>
#include <cstdint>
#include <span>
#include <vector>

#include "config/log.h"
#include "packets/route_message.h"
#include "tests/link/route_netlink.h"

namespace {

// The kernel has answered when the request is handed over; kMore when it told nothing of the
// target.
RouteAnswer ask(int fd, const std::vector<uint8_t>& request, const std::string& target,
                unsigned int ifindex) {
  RouteAnswer failed{.kind = RouteAnswer::Kind::kRefused, .error = 0};
  std::array<uint8_t, kNeighborAnswerSize> answer;
  ssize_t length = -1;
  if (send(fd, request.data(), request.size(), MSG_DONTWAIT) >= 0) {
    length = recv(fd, answer.data(), answer.size(), MSG_DONTWAIT);
  }
  if (length < 0) {
    failed.error = errno;
    return failed;
  }
  return read_route_answer(std::span(answer).first(static_cast<size_t>(length)), target, ifindex);
}

}  // namespace

int NeighborTable::get_mac(const std::string& target, unsigned int ifindex, MacAddress& mac) {
  const auto request = make_request_about(make_neighbor_request(RTM_GETNEIGH, NLM_F_REQUEST), kIpv6,
                                          target, ifindex);
  if (request.empty()) return 0;  // no neighbour has such an address
  if (!socket_.valid()) {
    socket_ = FileDescriptor(socket(AF_NETLINK, SOCK_RAW | SOCK_CLOEXEC, NETLINK_ROUTE));
  }
  if (!socket_.valid()) {
    LB_ERROR("Cannot open netlink socket");
    return -1;
  }
  const RouteAnswer answer = ask(socket_.get(), request, target, ifindex);
  switch (answer.kind) {
    case RouteAnswer::Kind::kFound:
      mac = answer.mac;
      return 1;
    case RouteAnswer::Kind::kMore:  // an entry without an address as yet, or another text of the
                                    // address
    case RouteAnswer::Kind::kDone:
      return 0;
    case RouteAnswer::Kind::kRefused:
      break;
  }
  if (answer.error == ENOENT) return 0;
  // An answer that is still on its way must not be taken for that to the next question.
  socket_.reset();
  return get_neighbor_mac(target, ifindex, &mac);
}
