#include "tests/link/neighbor_prober.h"

#include <linux/if_ether.h>
#include <netdb.h>
#include <sys/socket.h>

#include <cerrno>
#include <cstddef>
#include <span>
#include <string>

#include "config/log.h"
#include "packets/error_text.h"
#include "packets/neighbor_discovery.h"
#include "packets/packet_reader.h"
#include "platform/standard_error.h"
#include "tests/io/packet_socket.h"
#include "tests/link/link_info.h"
#include "tests/link/route_netlink.h"

namespace {

// The prefix of solicited-node addresses, as an address of it.
constexpr const char* kSolicitedNodes = "ff02::1:ff00:2";

constexpr size_t kIpv6Offset = sizeof(EthernetHeader);

void print_text_failure(const std::string& call, int error) {
  print_on_standard_error(call + "() failed.\nError message: " + error_text(error));
}

// As perror(3) prints it.
void print_failure(const std::string& what) {
  print_on_standard_error(what + ": " + error_text(errno) + "\n");
}

bool parse_printed_address(const std::string& text, in6_addr& address) {
  const int parsed = address_from_text(AF_INET6, text, &address);
  if (parsed <= 0) print_text_failure("inet_pton", parsed);
  return parsed > 0;
}

// The text of the address that the solicited-node addresses are made from; empty on failure.
std::string solicited_node_text() {
  in6_addr address;
  const int resolved = first_address(kIpv6, kSolicitedNodes, &address);
  if (resolved != 0) {
    print_on_standard_error(std::string("getaddrinfo() failed: ") + gai_strerror(resolved) + "\n");
    return {};
  }
  std::string text = address_to_text(AF_INET6, &address);
  if (text.empty()) print_text_failure("inet_ntop", errno);
  return text;
}

// The hardware address of the interface; a failure is printed.
bool read_source_mac(LinkInfo& link, const std::string& ifname, MacAddress& mac) {
  const auto answer = link.hardware_address(LinkSocket::kPacket, ifname);
  errno = answer.error;
  if (answer.step == LinkStep::kSocketFailed) {
    print_failure("socket() failed to get socket descriptor for using ioctl() ");
  } else if (answer.step == LinkStep::kIoctlFailed && answer.error != ENODEV) {
    print_failure("ioctl() failed to get source MAC address ");
  }
  mac = answer.value;
  return answer.answered();
}

// A socket of all protocols would also see what leaves by an interface, and on a lower device the
// frames of a VLAN, bridge or macvlan, without their tag.
FileDescriptor open_neighbor_receiver() {
  FileDescriptor fd = open_packet_socket(kEtherTypeIpv6);
  if (!fd.valid()) return fd;
  // A router sees many frames; the kernel keeps the others away from the thread. What it lets
  // through is looked at again, so a filter that is refused costs time only.
  sock_filter advertisements[] = {
      BPF_STMT(BPF_LD | BPF_H | BPF_ABS, offsetof(EthernetHeader, type)),  // the EtherType
      BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, kEtherTypeIpv6, 0, 7),           // not IPv6: refuse
      BPF_STMT(BPF_LD | BPF_B | BPF_ABS, kIpv6Offset + offsetof(Ipv6Header, next_header)),
      BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, kProtocolIcmpv6, 0, 5),  // not ICMPv6: refuse
      BPF_STMT(BPF_LD | BPF_B | BPF_ABS, kIpv6Offset + offsetof(Ipv6Header, hop_limit)),
      BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, kNeighborHopLimit, 0, 3),          // from afar: refuse
      BPF_STMT(BPF_LD | BPF_B | BPF_ABS, offsetof(NeighborFrame, message)),  // the ICMPv6 type
      BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, kNeighborAdvertisement, 0, 1),     // another: refuse
      BPF_STMT(BPF_RET | BPF_K, kWholePacket),                               // pass
      BPF_STMT(BPF_RET | BPF_K, 0),                                          // refuse
  };
  attach_filter(fd.get(), advertisements);
  return fd;
}

bool handle_neighbor_frame(std::span<const uint8_t> frame, unsigned int ifindex,
                           WatchedTargets& targets) {
  const auto advertisement = parse_neighbor_advertisement(frame);
  if (!advertisement) return true;
  const std::string target = address_to_text(AF_INET6, &advertisement->target);
  if (target.empty()) {
    print_text_failure("inet_ntop", errno);
    return false;
  }
  const std::string ifname = interface_name(ifindex);
  if (targets.is_watched(target, ifname)) add_neighbor_entry(target, advertisement->mac, ifname);
  return true;
}

}  // namespace

constinit const LinkProtocol kNeighborProtocol{
    .family = kIpv6,
    .destructor = "~LBNeighbor",
    .mutex = "_neighbor_mutex",
    .starter = "receive_reply",
    .receiver = "recv_neighbor",
    .thread = "neigh",
    // A receiver without a socket keeps the lock: requests that nobody would hear the answer of are
    // held back for good.
    .unlock_without_socket = false,
    .open_receiver = open_neighbor_receiver,
    .handle_frame = handle_neighbor_frame,
    .log_no_send_socket =
        [](const std::string& /*vrf*/) { LB_ERROR("<%s> socket() fo _send_sock failed ", "init"); },
    .log_no_mutex = [](int /*rc*/) { LB_ERROR("wan_lb: error mutex initialization"); },
    .log_receive_failure = [](const char* call) { LB_ERROR("%s() failed", call); },
};

LBNeighbor::LBNeighbor() : LinkProber(kNeighborProtocol) {}

void LBNeighbor::send_solicit() {
  MacAddress mac;
  if (!read_source_mac(link(), _ifname, mac)) return;
  const unsigned int ifindex = link().index(_ifname);
  if (ifindex == 0) {
    print_failure("if_nametoindex() failed to obtain interface index ");
    return;
  }
  const std::string solicited_nodes = solicited_node_text();
  if (solicited_nodes.empty()) return;
  in6_addr target;
  in6_addr source;
  in6_addr prefix;
  if (!parse_printed_address(_target, target) || !parse_printed_address(_source, source) ||
      !parse_printed_address(solicited_nodes, prefix)) {
    return;
  }
  const NeighborFrame frame =
      make_solicitation(mac, source, solicited_node_address(prefix, target), target);
  if (send_link_frame(send_socket(), static_cast<int>(ifindex), mac, bytes_of(frame)) <= 0) {
    print_failure("sendto() failed");
    close_send_socket();
  }
}

FirstLook LBNeighbor::look_first(MacAddress& mac) {
  return look_up(mac) == 1 ? FirstLook::kFound : FirstLook::kUnknown;
}

int LBNeighbor::look_up(MacAddress& mac) {
  const unsigned int ifindex = link().index(_ifname);
  return ifindex == 0 ? 0 : table_.get_mac(_target, ifindex, mac);
}

void LBNeighbor::send_request() { send_solicit(); }
