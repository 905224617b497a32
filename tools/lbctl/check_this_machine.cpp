// What lbctl check asks of the kernel: devices, their settings, and the way to an address.
#include <ifaddrs.h>
#include <linux/rtnetlink.h>
#include <net/if.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <sys/stat.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <span>
#include <vector>

#include "lbctl/bird_configuration.h"
#include "lbctl/check_machine.h"
#include "lbctl/inside_vrf.h"
#include "packets/family.h"
#include "packets/netlink_dump.h"
#include "packets/packet_reader.h"
#include "platform/file_descriptor.h"
#include "platform/regular_file.h"

namespace lbctl {

namespace {

constexpr size_t kAnswerSize = 8192;

std::optional<int> setting(const std::string& device, const char* name) {
  if (device.find('/') != std::string::npos) return std::nullopt;
  // Through the thread: /proc/sys/net is of the network namespace of who opens it.
  const FileDescriptor file =
      open_to_read("/proc/sys/net/ipv4/conf/" + device + "/" + std::string(name));
  if (!file.valid()) return std::nullopt;
  return std::atoi(read_up_to(file, 16).c_str());
}

std::optional<DeviceFacts> own_device_facts(const std::string& name) {
  DeviceFacts facts;
  if (name.empty() || name.size() >= IF_NAMESIZE || if_nametoindex(name.c_str()) == 0) return facts;
  facts.present = true;
  const FileDescriptor fd(socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0));
  ifreq request{};
  name.copy(request.ifr_name, IF_NAMESIZE - 1);
  if (fd.valid() && ioctl(fd.get(), SIOCGIFFLAGS, &request) == 0) {
    facts.no_arp = (request.ifr_flags & IFF_NOARP) != 0;
  }
  // The larger of the two is in force.
  facts.rp_filter =
      std::max(setting(name, "rp_filter").value_or(0), setting("all", "rp_filter").value_or(0));
  return facts;
}

// The device's first IPv4 address.
std::optional<in_addr> first_address(const std::string& device) {
  ifaddrs* list = nullptr;
  if (getifaddrs(&list) != 0) return std::nullopt;
  std::optional<in_addr> found;
  for (const ifaddrs* entry = list; entry != nullptr && !found; entry = entry->ifa_next) {
    if (entry->ifa_addr == nullptr || entry->ifa_addr->sa_family != AF_INET) continue;
    if (device != entry->ifa_name) continue;
    sockaddr_in address{};
    std::memcpy(&address, entry->ifa_addr, sizeof(address));
    found = address.sin_addr;
  }
  freeifaddrs(list);
  return found;
}

struct RouteQuestion {
  nlmsghdr header{};
  rtmsg route{};
  rtattr target_head{};
  in_addr target{};
  rtattr source_head{};
  in_addr source{};
};
static_assert(sizeof(RouteQuestion) == 44);

RouteQuestion make_question(const in_addr& source, const in_addr& target) {
  RouteQuestion question;
  question.header.nlmsg_len = sizeof(question);
  question.header.nlmsg_type = RTM_GETROUTE;
  question.header.nlmsg_flags = NLM_F_REQUEST;
  question.route.rtm_family = AF_INET;
  question.route.rtm_dst_len = 32;
  question.route.rtm_src_len = 32;
  question.route.rtm_flags = RTM_F_FIB_MATCH;  // the route itself, with all of its next hops
  question.target_head = {.rta_len = RTA_LENGTH(sizeof(in_addr)), .rta_type = RTA_DST};
  question.target = target;
  question.source_head = {.rta_len = RTA_LENGTH(sizeof(in_addr)), .rta_type = RTA_SRC};
  question.source = source;
  return question;
}

bool add_device(uint32_t index, std::vector<std::string>& devices) {
  std::array<char, IF_NAMESIZE> name{};
  if (if_indextoname(index, name.data()) == nullptr) return false;
  devices.emplace_back(name.data());
  return true;
}

// The devices of the route that the answer tells, none for a refusal: there is no route. No value
// where they cannot be told.
std::optional<std::vector<std::string>> devices_in(std::span<const uint8_t> answer) {
  const auto message = take_message(answer);
  if (!message) return std::nullopt;
  std::vector<std::string> devices;
  if (message->header.nlmsg_type != RTM_NEWROUTE) return devices;
  if (message->payload.size() < sizeof(rtmsg)) return std::nullopt;
  std::span<const uint8_t> attributes = message->payload.subspan(sizeof(rtmsg));
  while (const auto attribute = take_attribute(attributes)) {
    if (attribute->type == RTA_OIF && attribute->data.size() >= sizeof(uint32_t)) {
      uint32_t index = 0;
      std::memcpy(&index, attribute->data.data(), sizeof(index));
      if (!add_device(index, devices)) return std::nullopt;
    } else if (attribute->type == RTA_MULTIPATH) {
      std::span<const uint8_t> nexthops = attribute->data;
      rtnexthop nexthop{};
      while (nexthops.size() >= sizeof(nexthop)) {
        std::memcpy(&nexthop, nexthops.data(), sizeof(nexthop));
        const size_t length = RTNH_ALIGN(nexthop.rtnh_len);
        if (!add_device(static_cast<uint32_t>(nexthop.rtnh_ifindex), devices)) return std::nullopt;
        if (length < sizeof(nexthop) || length > nexthops.size()) break;
        nexthops = nexthops.subspan(length);
      }
    }
  }
  return devices;
}

std::optional<std::string> own_way_back(const std::string& device, const std::string& source,
                                        const std::string& target) {
  in_addr to{};
  in_addr from{};
  if (address_from_text(AF_INET, target, &to) != 1) return std::nullopt;
  if (source.empty()) {
    const auto own = first_address(device);
    if (!own) return std::nullopt;
    from = *own;
  } else if (address_from_text(AF_INET, source, &from) != 1) {
    return std::nullopt;
  }
  const FileDescriptor fd(socket(AF_NETLINK, SOCK_RAW | SOCK_CLOEXEC, NETLINK_ROUTE));
  const RouteQuestion question = make_question(from, to);
  if (!fd.valid() || send(fd.get(), &question, sizeof(question), 0) < 0) return std::nullopt;
  std::array<uint8_t, kAnswerSize> answer;
  const ssize_t size = recv(fd.get(), answer.data(), answer.size(), 0);
  if (size <= 0) return std::nullopt;
  const auto devices = devices_in({answer.data(), static_cast<size_t>(size)});
  if (!devices) return std::nullopt;
  // The filter takes any next hop of a multipath route for the way back.
  if (std::find(devices->begin(), devices->end(), device) != devices->end()) return device;
  return devices->empty() ? std::string() : devices->front();
}

class ThisMachine : public Machine {
 public:
  bool has_vrf(const std::string& vrf) const override {
    struct stat status {};
    return vrf.find('/') == std::string::npos && vrf != "." && vrf != ".." &&
           stat(("/var/run/netns/" + vrf).c_str(), &status) == 0;
  }

  std::optional<DeviceFacts> device(const std::string& vrf,
                                    const std::string& name) const override {
    std::optional<DeviceFacts> facts;
    run_inside_vrf(vrf, [&] { facts = own_device_facts(name); });
    return facts;
  }

  std::optional<std::string> way_back(const std::string& vrf, const std::string& device,
                                      const std::string& source,
                                      const std::string& target) const override {
    std::optional<std::string> way;
    run_inside_vrf(vrf, [&] { way = own_way_back(device, source, target); });
    return way;
  }

  std::string bird_configuration_without(const std::string& vrf,
                                         const std::string& path) const override {
    return lbctl::bird_configuration_without(vrf, path);
  }

  std::optional<std::vector<KernelRoute>> routes(const std::string& vrf, bool ipv6) const override {
    return read_kernel_routes(vrf, ipv6);
  }
};

}  // namespace

std::unique_ptr<Machine> this_machine() { return std::make_unique<ThisMachine>(); }

}  // namespace lbctl
