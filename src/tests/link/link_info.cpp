#include "tests/link/link_info.h"

#include <linux/if_ether.h>
#include <net/if.h>
#include <sys/ioctl.h>
#include <sys/socket.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "platform/file_descriptor.h"
#include "tests/io/packet_socket.h"

namespace {

FileDescriptor open_datagram_socket() {
  return FileDescriptor(socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0));
}

// Puts one interface request; the answer's value is the filled request.
LinkAnswer<ifreq> ask(const FileDescriptor& fd, const std::string& ifname, unsigned long request) {
  LinkAnswer<ifreq> answer;
  ifname.copy(answer.value.ifr_name, IFNAMSIZ - 1);
  if (!fd.valid()) {
    answer.step = LinkStep::kSocketFailed;
  } else if (ioctl(fd.get(), request, &answer.value) < 0) {
    answer.step = LinkStep::kIoctlFailed;
  }
  if (!answer.answered()) answer.error = errno;
  return answer;
}

}  // namespace

LinkAnswer<MacAddress> hardware_address(LinkSocket kind, const std::string& ifname) {
  const FileDescriptor fd =
      kind == LinkSocket::kPacket
          ? open_packet_socket(ETH_P_ALL)
          : FileDescriptor(socket(AF_INET, SOCK_RAW | SOCK_CLOEXEC, IPPROTO_RAW));
  const auto answer = ask(fd, ifname, SIOCGIFHWADDR);
  LinkAnswer<MacAddress> mac{answer.step, answer.error, {}};
  if (mac.answered()) {
    std::copy_n(reinterpret_cast<const uint8_t*>(answer.value.ifr_hwaddr.sa_data), mac.value.size(),
                mac.value.begin());
  }
  return mac;
}

LinkAnswer<in_addr> own_ipv4_address(const std::string& ifname) {
  const auto answer = ask(open_datagram_socket(), ifname, SIOCGIFADDR);
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
  const auto answer = ask(open_datagram_socket(), ifname, SIOCGIFFLAGS);
  if (!answer.answered()) return std::nullopt;
  return (answer.value.ifr_flags & IFF_NOARP) != 0;
}
