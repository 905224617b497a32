#include "tests/io/packet_socket.h"

#include <linux/filter.h>
#include <linux/if_packet.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include <algorithm>

FileDescriptor open_packet_socket(uint16_t ether_type) {
  return FileDescriptor(socket(AF_PACKET, SOCK_RAW | SOCK_CLOEXEC, htons(ether_type)));
}

bool attach_filter(int fd, std::span<const sock_filter> program) {
  if (program.size() > BPF_MAXINSNS) return false;
  // The kernel only reads it.
  const sock_fprog attached = {static_cast<unsigned short>(program.size()),
                               const_cast<sock_filter*>(program.data())};
  return setsockopt(fd, SOL_SOCKET, SO_ATTACH_FILTER, &attached, sizeof(attached)) == 0;
}

FileDescriptor open_send_only_packet_socket() { return open_packet_socket(0); }

ssize_t send_link_frame(int fd, int ifindex, const MacAddress& destination,
                        std::span<const uint8_t> frame) {
  sockaddr_ll address{};
  static_assert(sizeof(address) == 20);
  address.sll_family = AF_PACKET;
  address.sll_ifindex = ifindex;
  address.sll_halen = static_cast<uint8_t>(destination.size());
  std::copy(destination.begin(), destination.end(), address.sll_addr);
  return sendto(fd, frame.data(), frame.size(), MSG_DONTWAIT,
                reinterpret_cast<const sockaddr*>(&address), sizeof(address));
}
