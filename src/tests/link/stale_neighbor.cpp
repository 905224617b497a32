#include "tests/link/stale_neighbor.h"

#include <net/if.h>
#include <sys/socket.h>

#include <algorithm>
#include <array>
#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include "packets/route_message.h"
#include "platform/file_descriptor.h"
#include "tests/link/route_netlink.h"

namespace {

// Results alone do not tell: a target that is the next hop has failed from the start.
bool is_settled_failure(const LBInterface& interface) {
  MutexLock lock(interface.mutex);
  const InterfaceState& state = interface.state;
  return !state.active && !state.no_arp.value_or(true) &&
         std::any_of(state.failure_counts.begin(), state.failure_counts.end(),
                     [&](const auto& count) { return count.second >= interface.failure_ct; });
}

bool send_request(int fd, const std::vector<uint8_t>& message) {
  return !message.empty() && send(fd, message.data(), message.size(), MSG_DONTWAIT) > 0;
}

// The kernel answers while the request is handed over.
std::optional<uint16_t> answered_state(int fd) {
  std::array<uint8_t, kNeighborAnswerSize> buffer;
  const ssize_t length = recv(fd, buffer.data(), buffer.size(), MSG_DONTWAIT);
  if (length <= 0) return std::nullopt;
  return read_neighbor_state(std::span(buffer).first(static_cast<size_t>(length)));
}

}  // namespace

void verify_stale_nexthop(const LBInterface& interface, const Family& family) {
  if (!is_settled_failure(interface)) return;
  const unsigned int ifindex = if_nametoindex(interface.origin.c_str());
  if (ifindex == 0) return;
  const std::string gateway = interface.gateway();
  const FileDescriptor fd(socket(AF_NETLINK, SOCK_RAW | SOCK_CLOEXEC, NETLINK_ROUTE));

  const auto question = make_neighbor_request(RTM_GETNEIGH, NLM_F_REQUEST);
  if (!send_request(fd.get(), make_request_about(question, family, gateway, ifindex))) return;
  if (answered_state(fd.get()) != NUD_STALE) return;

  auto use = make_neighbor_request(RTM_NEWNEIGH, NLM_F_REQUEST);
  use.neighbor.ndm_flags = NTF_USE;
  send_request(fd.get(), make_request_about(use, family, gateway, ifindex));
}
