#include "tests/link/arp_prober.h"

#include <arpa/inet.h>
#include <net/if_arp.h>
#include <netdb.h>
#include <sys/ioctl.h>
#include <sys/socket.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <span>
#include <string>

#include "config/log.h"
#include "packets/arp.h"
#include "packets/error_text.h"
#include "packets/packet_reader.h"
#include "tests/io/mutex_failure.h"
#include "tests/io/packet_socket.h"
#include "tests/link/link_info.h"

namespace {

// A request of the kernel's ARP table on `address` by `ifname`; everything else is 0.
arpreq make_table_request(in_addr address, const std::string& ifname) {
  arpreq request{};
  sockaddr_in protocol_address{};
  protocol_address.sin_family = AF_INET;
  protocol_address.sin_addr = address;
  std::memcpy(&request.arp_pa, &protocol_address, sizeof(request.arp_pa));
  ifname.copy(request.arp_dev, sizeof(request.arp_dev) - 1);
  return request;
}

// What the kernel's table says of an address, or how far the question came.
struct TableAnswer {
  enum class Step { kAnswered, kSocketFailed, kNoAddress, kIoctlFailed };
  Step step = Step::kAnswered;
  int error = 0;  // errno of the failure
  arpreq entry{};

  bool complete() const { return (entry.arp_flags & ATF_COM) != 0; }

  // Of a complete entry.
  MacAddress mac() const {
    MacAddress address;
    std::copy_n(reinterpret_cast<const uint8_t*>(entry.arp_ha.sa_data), address.size(),
                address.begin());
    return address;
  }
};

TableAnswer ask_table(int fd, const std::string& target, const std::string& ifname) {
  using Step = TableAnswer::Step;
  if (fd < 0) return {Step::kSocketFailed, errno, {}};
  in_addr address;
  if (inet_aton(target.c_str(), &address) == 0) return {Step::kNoAddress, errno, {}};
  TableAnswer answer;
  answer.entry = make_table_request(address, ifname);
  answer.entry.arp_ha.sa_family = ARPHRD_ETHER;
  if (ioctl(fd, SIOCGARP, &answer.entry) < 0) return {Step::kIoctlFailed, errno, {}};
  return answer;
}

// Enters a reply's sender into the kernel's table. The hardware family stays 0, which the kernel
// takes for the interface's own.
void add_arp_entry(const ArpReply& reply, const std::string& address, const std::string& ifname) {
  constexpr const char* kName = "add_arp_entry";
  arpreq request = make_table_request(reply.sender, ifname);
  static_assert(sizeof(request.arp_ha.sa_data) == sizeof(reply.hardware));
  std::copy(reply.hardware.begin(), reply.hardware.end(), request.arp_ha.sa_data);
  request.arp_flags = ATF_COM;
  const FileDescriptor fd(socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0));
  if (!fd.valid()) {
    LB_ERROR("<%s> socket() failed", kName);
  } else if (ioctl(fd.get(), SIOCSARP, &request) < 0) {
    LB_ERROR("<%s> %s", kName, address.c_str());
  }
}

FileDescriptor open_arp_receiver() { return open_packet_socket(kEtherTypeArp); }

bool handle_arp_frame(std::span<const uint8_t> frame, unsigned int ifindex,
                      WatchedTargets& targets) {
  if (const auto reply = parse_arp_reply(frame)) {
    const std::string address = address_to_text(AF_INET, &reply->sender);
    const std::string ifname = interface_name(ifindex);
    if (targets.is_watched(address, ifname)) add_arp_entry(*reply, address, ifname);
  }
  return true;
}

constexpr const char* kMutex = "_arp_mutex";
constexpr const char* kReceiver = "recv_arp";

}  // namespace

constinit const LinkProtocol kArpProtocol{
    .family = kIpv4,
    .destructor = "~LBArp",
    .mutex = kMutex,
    .starter = "received_arp",
    .receiver = kReceiver,
    .thread = "arp",
    .unlock_without_socket = true,
    .open_receiver = open_arp_receiver,
    .handle_frame = handle_arp_frame,
    .log_no_send_socket =
        [](const std::string& vrf) {
          LB_ERROR("<%s> socket() fo _send_sock in %s failed ", "init", vrf.c_str());
        },
    // The words of the destruction, also for the initialisation.
    .log_no_mutex = [](int rc) { log_mutex_failure("init", "pthread_mutex_destroy", kMutex, rc); },
    .log_receive_failure = [](const char* call) { LB_ERROR("<%s> %s() failed", kReceiver, call); },
};

LBArp::LBArp() : LinkProber(kArpProtocol) {}

int LBArp::check_arp_exist() {
  MacAddress unused;
  return check_entry(unused);
}

int LBArp::check_entry(MacAddress& mac) {
  constexpr const char* kName = "check_arp_exist";
  const TableAnswer answer = ask_table(link().socket(LinkSocket::kDatagram), _target, _ifname);
  switch (answer.step) {
    case TableAnswer::Step::kSocketFailed:
      LB_ERROR("<%s> Socket", kName);
      return -1;
    case TableAnswer::Step::kNoAddress:
      LB_ERROR("<%s> Inet_aton() failed %s(%d)", kName, error_text(answer.error).c_str(),
               answer.error);
      return -1;
    case TableAnswer::Step::kIoctlFailed:
      if (answer.error == ENXIO) return 0;
      LB_ERROR("<%s> Ioctl %s(%d)", kName, error_text(answer.error).c_str(), answer.error);
      return -1;
    case TableAnswer::Step::kAnswered:
      break;
  }
  if (!answer.complete()) return 0;
  mac = answer.mac();
  return 1;
}

int LBArp::get_mac(MacAddress& mac) {
  constexpr const char* kName = "get_mac";
  const TableAnswer answer = ask_table(link().socket(LinkSocket::kDatagram), _target, _ifname);
  if (answer.step == TableAnswer::Step::kSocketFailed) LB_ERROR("<%s> Socket", kName);
  if (answer.step == TableAnswer::Step::kNoAddress) LB_ERROR("<%s> Inet_aton", kName);
  if (answer.step != TableAnswer::Step::kAnswered) return -1;
  if (!answer.complete()) return 0;
  mac = answer.mac();
  return 1;
}

int LBArp::send_arp() {
  constexpr const char* kName = "send_arp";
  const auto mac = link().hardware_address(LinkSocket::kRawIpv4, _ifname);
  if (mac.step == LinkStep::kSocketFailed) {
    LB_ERROR("<%s> socket() failed to get socket descriptor for using ioctl()", kName);
    return -1;
  }
  if (mac.step == LinkStep::kIoctlFailed) {
    if (mac.error != ENODEV) LB_ERROR("<%s> ioctl() failed to get source MAC address", kName);
    return -1;
  }
  const unsigned int ifindex = link().index(_ifname);
  if (ifindex == 0) {
    LB_ERROR("<%s> if_nametoindex() failed to obtain interface index", kName);
    return -1;
  }
  in_addr source;
  const int parsed = address_from_text(AF_INET, _source, &source);
  if (parsed != 1) {
    LB_ERROR("<%s> inet_pton() failed for source IP address.Error message: %s", kName,
             error_text(parsed).c_str());
    return -1;
  }
  in_addr target;
  const int resolved = first_address(kIpv4, _target, &target);
  if (resolved != 0) {
    LB_ERROR("<%s> getaddrinfo() failed: %s", kName, gai_strerror(resolved));
    return -1;
  }
  const ArpFrame frame = make_arp_request(mac.value, source, target);
  const ssize_t sent =
      send_link_frame(send_socket(), static_cast<int>(ifindex), mac.value, bytes_of(frame));
  if (sent <= 0) {
    LB_ERROR("<%s> sendto() failed", kName);
    close_send_socket();  // full of one link's requests, it would fail those of all others too
  }
  return static_cast<int>(sent);
}

FirstLook LBArp::look_first(MacAddress& mac) {
  const int known = check_entry(mac);
  if (known < 0) return FirstLook::kFailed;
  return known == 0 ? FirstLook::kUnknown : FirstLook::kFound;
}

int LBArp::look_up(MacAddress& mac) { return get_mac(mac); }

void LBArp::send_request() { send_arp(); }
