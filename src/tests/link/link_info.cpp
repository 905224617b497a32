#include "tests/link/link_info.h"

#include <net/if.h>
#include <sys/ioctl.h>
#include <sys/socket.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "tests/io/device_index.h"
#include "tests/io/packet_socket.h"

namespace {

FileDescriptor open_socket(LinkSocket kind) {
  switch (kind) {
    case LinkSocket::kDatagram:
      return FileDescriptor(socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    case LinkSocket::kRawIpv4:
      return FileDescriptor(socket(AF_INET, SOCK_RAW | SOCK_CLOEXEC, IPPROTO_RAW));
    case LinkSocket::kPacket:
      return open_send_only_packet_socket();
  }
  return {};
}

// Puts one interface request; the answer's value is the filled request.
LinkAnswer<ifreq> ask(int fd, const std::string& ifname, unsigned long request) {
  LinkAnswer<ifreq> answer;
  ifname.copy(answer.value.ifr_name, IFNAMSIZ - 1);
  if (fd < 0) {
    answer.step = LinkStep::kSocketFailed;
  } else if (ioctl(fd, request, &answer.value) < 0) {
    answer.step = LinkStep::kIoctlFailed;
  }
  if (!answer.answered()) answer.error = errno;
  return answer;
}

}  // namespace

int LinkInfo::socket(LinkSocket kind) {
  FileDescriptor& fd = sockets_.at(static_cast<size_t>(kind));
  if (!fd.valid()) fd = open_socket(kind);
  return fd.get();
}

LinkAnswer<MacAddress> LinkInfo::hardware_address(LinkSocket kind, const std::string& ifname) {
  const auto answer = ask(socket(kind), ifname, SIOCGIFHWADDR);
  LinkAnswer<MacAddress> mac{answer.step, answer.error, {}};
  if (mac.answered()) {
    std::copy_n(reinterpret_cast<const uint8_t*>(answer.value.ifr_hwaddr.sa_data), mac.value.size(),
                mac.value.begin());
  }
  return mac;
}

unsigned int LinkInfo::index(const std::string& ifname) {
  const int fd = socket(LinkSocket::kDatagram);
  return fd < 0 ? 0 : static_cast<unsigned int>(device_index(fd, ifname));
}

LinkAnswer<in_addr> LinkInfo::own_ipv4_address(const std::string& ifname) {
  const auto answer = ask(socket(LinkSocket::kDatagram), ifname, SIOCGIFADDR);
  LinkAnswer<in_addr> address{answer.step, answer.error, {}};
  if (address.answered()) {
    sockaddr_in found;
    std::memcpy(&found, &answer.value.ifr_addr, sizeof(found));
    address.value = found.sin_addr;
  }
  return address;
}

std::string interface_name(unsigned int ifindex) {
  char name[IF_NAMESIZE];
  return if_indextoname(ifindex, name) == nullptr ? std::string() : name;
}

std::optional<bool> no_arp_flag(const std::string& ifname) {
  const FileDescriptor fd = open_socket(LinkSocket::kDatagram);
  const auto answer = ask(fd.get(), ifname, SIOCGIFFLAGS);
  if (!answer.answered()) return std::nullopt;
  return (answer.value.ifr_flags & IFF_NOARP) != 0;
}
