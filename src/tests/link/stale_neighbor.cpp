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

#include "packets/packet_reader.h"
#include "packets/route_message.h"
#include "platform/file_descriptor.h"

namespace {

constexpr size_t kReceiveSize = 8192;

// Results alone do not tell: a target that is the next hop has failed from the start.
bool is_settled_failure(const LBInterface& interface) {
  const InterfaceState state = interface.snapshot();
  const bool failed =
      std::any_of(state.failure_counts.begin(), state.failure_counts.end(),
                  [&](const auto& count) { return count.second >= interface.failure_ct; });
  return !state.active && failed && !state.no_arp.value_or(true);
}

// A request about one neighbour; empty when the address is none of the family.
std::vector<uint8_t> make_request(NeighborRequest head, const Family& family,
                                  const std::string& address, unsigned int ifindex) {
  in6_addr bytes{};  // room for an address of either family
  if (address_from_text(family.address_family, address, &bytes) != 1) return {};
  head.neighbor.ndm_family = static_cast<uint8_t>(family.address_family);
  head.neighbor.ndm_ifindex = static_cast<int>(ifindex);
  const auto head_bytes = bytes_of(head);
  std::vector<uint8_t> message(head_bytes.begin(), head_bytes.end());
  const size_t size = family.ipv6 ? sizeof(in6_addr) : sizeof(in_addr);
  if (!append_attribute(message, NDA_DST, bytes_of(bytes).first(size), kNeighborRequestBound)) {
    return {};
  }
  return message;
}

bool send_request(int fd, const std::vector<uint8_t>& message) {
  return !message.empty() && send(fd, message.data(), message.size(), MSG_DONTWAIT) > 0;
}

// The kernel answers while the request is handed over.
std::optional<uint16_t> answered_state(int fd) {
  std::array<uint8_t, kReceiveSize> buffer;
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
  if (!send_request(fd.get(), make_request(question, family, gateway, ifindex))) return;
  if (answered_state(fd.get()) != NUD_STALE) return;

  auto use = make_neighbor_request(RTM_NEWNEIGH, NLM_F_REQUEST);
  use.neighbor.ndm_flags = NTF_USE;
  send_request(fd.get(), make_request(use, family, gateway, ifindex));
}
