#include <linux/filter.h>
#include <linux/if_packet.h>
#include <sys/socket.h>

#include <cerrno>
#include <cstddef>
#include <cstring>
#include <optional>

#include "packets/icmp_echo.h"
#include "packets/wire_reply.h"
#include "tests/io/device_index.h"
#include "tests/io/packet_socket.h"
#include "tests/io/reply_source.h"

namespace {

// What the kernel tells of a packet beside its bytes.
constexpr uint32_t kToWhom = static_cast<uint32_t>(SKF_AD_OFF) + SKF_AD_PKTTYPE;

// Lets echo replies pass that carry a key, are for this host and came by the device itself. Packets
// start with the IP header; a load beyond their end refuses them.
void attach_filter4(int fd, uint32_t ifindex) {
  sock_filter replies[] = {
      BPF_STMT(BPF_LD | BPF_W | BPF_ABS, kToWhom),
      BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, PACKET_HOST, 0, 12),  // to another station: refuse
      BPF_STMT(BPF_LD | BPF_W | BPF_ABS, kByInterface),
      BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, ifindex, 0, 10),  // of a device on top: refuse
      BPF_STMT(BPF_LD | BPF_B | BPF_ABS, offsetof(Ipv4Header, protocol)),
      BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, kProtocolIcmp, 0, 8),  // not ICMP: refuse
      BPF_STMT(BPF_LD | BPF_H | BPF_ABS, offsetof(Ipv4Header, flags_fragment)),
      BPF_JUMP(BPF_JMP | BPF_JSET | BPF_K, kIpv4Fragment, 6, 0),  // a part of a packet: refuse
      BPF_STMT(BPF_LDX | BPF_B | BPF_MSH, 0),                     // x = length of the IP header
      BPF_STMT(BPF_LD | BPF_B | BPF_IND, offsetof(IcmpEcho, type)),
      BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, kIcmpEchoReply, 0, 3),    // another message: refuse
      BPF_STMT(BPF_LD | BPF_W | BPF_IND, offsetof(IcmpEcho, key)),  // the key; too short: refused
      BPF_JUMP(BPF_JMP | BPF_JGT | BPF_K, kLargestProbeKey, 1, 0),  // no key is that large
      BPF_STMT(BPF_RET | BPF_K, kWholePacket),                      // pass
      BPF_STMT(BPF_RET | BPF_K, 0),                                 // refuse
  };
  attach_filter(fd, replies);
}

// The same behind the IPv6 header. What an extension header hides is no reply to a probe.
void attach_filter6(int fd, uint32_t ifindex) {
  constexpr size_t kMessage = sizeof(Ipv6Header);
  sock_filter replies[] = {
      BPF_STMT(BPF_LD | BPF_W | BPF_ABS, kToWhom),
      BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, PACKET_HOST, 0, 9),  // to another station: refuse
      BPF_STMT(BPF_LD | BPF_W | BPF_ABS, kByInterface),
      BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, ifindex, 0, 7),  // of a device on top: refuse
      BPF_STMT(BPF_LD | BPF_B | BPF_ABS, offsetof(Ipv6Header, next_header)),
      BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, kProtocolIcmpv6, 0, 5),  // not ICMPv6: refuse
      BPF_STMT(BPF_LD | BPF_B | BPF_ABS, kMessage + offsetof(IcmpEcho, type)),
      BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, kIcmp6EchoReply, 0, 3),  // another message: refuse
      BPF_STMT(BPF_LD | BPF_W | BPF_ABS, kMessage + offsetof(IcmpEcho, key)),
      BPF_JUMP(BPF_JMP | BPF_JGT | BPF_K, kLargestProbeKey, 1, 0),  // no key is that large
      BPF_STMT(BPF_RET | BPF_K, kWholePacket),                      // pass
      BPF_STMT(BPF_RET | BPF_K, 0),                                 // refuse
  };
  attach_filter(fd, replies);
}

// The index of the device that the socket is bound to; 0 or -1 while it is bound to none.
int bound_index(int fd) {
  sockaddr_ll address{};
  socklen_t size = sizeof(address);
  getsockname(fd, reinterpret_cast<sockaddr*>(&address), &size);
  return address.sll_ifindex;
}

// A device that goes and comes back under its name is another one to the kernel. While there is
// none the socket stays where it is. What cannot be bound now is tried again with the next probe.
void follow_device(int fd, const Family& family, const std::string& ifname) {
  const int ifindex = device_index(fd, ifname);
  const int bound = bound_index(fd);
  if (ifindex == 0 || ifindex == bound) return;
  const auto attach = family.ipv6 ? attach_filter6 : attach_filter4;
  // Before the socket receives anything from the device.
  attach(fd, static_cast<uint32_t>(ifindex));
  sockaddr_ll address{};
  address.sll_family = AF_PACKET;
  address.sll_protocol = htons(family.ether_type);
  address.sll_ifindex = ifindex;
  if (bind(fd, reinterpret_cast<const sockaddr*>(&address), sizeof(address)) != 0) {
    attach(fd, static_cast<uint32_t>(bound));  // what it is still bound to
  }
}

// Without the link-layer header: a packet looks the same on every kind of device. Of no protocol,
// so that nothing is received until the socket is bound.
FileDescriptor open_wire_socket(const Family& family, const std::string& ifname) {
  FileDescriptor fd(socket(AF_PACKET, SOCK_DGRAM | SOCK_CLOEXEC, 0));
  if (fd.valid()) follow_device(fd.get(), family, ifname);
  return fd;
}

void set_sender(SocketAddress& sender, const in_addr& address) {
  sender.ipv4.sin_family = AF_INET;
  sender.ipv4.sin_addr = address;
  sender.size = sizeof(sender.ipv4);
}

void set_sender(SocketAddress& sender, const in6_addr& address) {
  sender.ipv6.sin6_family = AF_INET6;
  sender.ipv6.sin6_addr = address;
  sender.size = sizeof(sender.ipv6);
}

template <class Address>
ReceivedReply received_reply(const std::optional<WireReply<Address>>& found) {
  ReceivedReply reply;
  if (!found) return reply;
  reply.kind = ReceivedReply::Kind::kPacket;
  reply.packet = found->packet;
  set_sender(reply.sender, found->sender);
  return reply;
}

ReceivedReply receive_packet(int fd, const Family& family, std::span<uint8_t> buffer, int flags,
                             bool /*asks_sender*/) {
  const ssize_t received = recv(fd, buffer.data(), buffer.size(), flags);
  if (received > 0) {
    const std::span<const uint8_t> packet = buffer.first(static_cast<size_t>(received));
    return family.ipv6 ? received_reply(parse_wire_reply6(packet))
                       : received_reply(parse_wire_reply4(packet));
  }
  ReceivedReply reply;
  // A device that went down or away says so once; the socket goes on when it is back.
  const bool is_passing =
      received < 0 && (errno == ENETDOWN || ((flags & MSG_DONTWAIT) != 0 && errno == EAGAIN));
  if (!is_passing) reply.kind = ReceivedReply::Kind::kFailed;
  return reply;
}

bool is_address_of(const SocketAddress& sender, const Family& family, const in6_addr& address) {
  return family.ipv6 ? std::memcmp(&sender.ipv6.sin6_addr, &address, sizeof(in6_addr)) == 0
                     : std::memcmp(&sender.ipv4.sin_addr, &address, sizeof(in_addr)) == 0;
}

// The wire also shows replies that are forwarded, and the same daemon may run on a host behind this
// one: its keys are the same numbers.
bool answers_own(const Family& family, const std::string& ifname, const SocketAddress& sender,
                 const PendingProbe& probe) {
  if (probe.ifname != ifname) return false;
  in6_addr target;  // room for an address of either family
  const bool is_address = address_from_text(family.address_family, probe.target, &target) == 1;
  return !is_address || is_address_of(sender, family, target);
}

}  // namespace

constinit const ReplySource kWireReplies{.open = open_wire_socket,
                                         .follow = follow_device,
                                         .leave = [](int /*fd*/, const Family& /*family*/) {},
                                         .receive = receive_packet,
                                         .answers = answers_own};
