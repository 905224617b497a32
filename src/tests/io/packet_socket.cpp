#include "tests/io/packet_socket.h"

#include <linux/if_packet.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include <algorithm>

FileDescriptor open_packet_socket(uint16_t ether_type) {
  return FileDescriptor(socket(AF_PACKET, SOCK_RAW | SOCK_CLOEXEC, htons(ether_type)));
}

void attach_filter(int fd, std::span<sock_filter> program) {
  const sock_fprog attached = {static_cast<unsigned short>(program.size()), program.data()};
  setsockopt(fd, SOL_SOCKET, SO_ATTACH_FILTER, &attached, sizeof(attached));
}

void refuse_input(int fd) {
  sock_filter refuse_all[] = {BPF_STMT(BPF_RET | BPF_K, 0)};  // whatever it is
  // Without the filter the queue fills once and drops the rest; sending works all the same.
  attach_filter(fd, refuse_all);
}

FileDescriptor open_send_only_packet_socket(uint16_t ether_type) {
  FileDescriptor fd = open_packet_socket(ether_type);
  if (fd.valid()) refuse_input(fd.get());
  return fd;
}

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
