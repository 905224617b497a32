#include "lbctl/kernel_route_message.h"

#include <algorithm>
#include <span>
#include <utility>

#include <fmt/format.h>

#include "packets/packet_reader.h"

namespace lbctl {

namespace {

size_t address_size(const Family& family) {
  return family.ipv6 ? sizeof(in6_addr) : sizeof(in_addr);
}

// The text of the first `size` bytes of an address of the family, the rest of which is zero; empty
// for data that are too long.
std::string address_text(const Family& family, std::span<const uint8_t> data) {
  in6_addr address{};  // room for an address of either family
  if (data.size() > address_size(family)) return {};
  std::copy(data.begin(), data.end(), address.s6_addr);
  return address_to_text(family.address_family, &address);
}

// RTA_VIA: a gateway of another family than the route's, behind the number of its family.
std::string via_text(std::span<const uint8_t> data) {
  const auto number = PacketReader(data).at<uint16_t>(0);
  if (!number || (*number != AF_INET && *number != AF_INET6)) return {};
  const Family& family = family_of(*number == AF_INET6);
  if (data.size() != sizeof(uint16_t) + address_size(family)) return {};
  return address_text(family, data.subspan(sizeof(uint16_t)));
}

// What the attributes of a route, or of one of its next hops, say.
struct Parts {
  uint32_t table = RT_TABLE_UNSPEC;
  uint32_t metric = 0;
  uint32_t ifindex = 0;
  std::string gateway;
  std::string destination;
  std::span<const uint8_t> nexthops;
};

void read_number(std::span<const uint8_t> data, uint32_t& number) {
  number = PacketReader(data).at<uint32_t>(0).value_or(number);
}

void read_parts(std::span<const uint8_t> attributes, const Family& family, Parts& parts) {
  while (const auto attribute = take_attribute(attributes)) {
    switch (attribute->type) {
      case RTA_TABLE:
        read_number(attribute->data, parts.table);
        break;
      case RTA_PRIORITY:
        read_number(attribute->data, parts.metric);
        break;
      case RTA_OIF:
        read_number(attribute->data, parts.ifindex);
        break;
      case RTA_DST:
        parts.destination = address_text(family, attribute->data);
        break;
      case RTA_GATEWAY:
        parts.gateway = address_text(family, attribute->data);
        break;
      case RTA_VIA:
        parts.gateway = via_text(attribute->data);
        break;
      case RTA_MULTIPATH:
        parts.nexthops = attribute->data;
        break;
      default:
        break;
    }
  }
}

// RTA_MULTIPATH: heads with attributes of their own (rtnexthop), each padded to 4.
void append_nexthops(std::span<const uint8_t> bytes, const Family& family,
                     const DeviceName& name_of, KernelRoute& route) {
  while (const auto head = PacketReader(bytes).at<rtnexthop>(0)) {
    const size_t length = head->rtnh_len;
    if (length < sizeof(rtnexthop) || length > bytes.size()) break;
    Parts parts;
    read_parts(bytes.subspan(sizeof(rtnexthop), length - sizeof(rtnexthop)), family, parts);
    if ((head->rtnh_flags & RTNH_F_DEAD) == 0) {
      route.nexthops.push_back({.address = std::move(parts.gateway),
                                .device = name_of(static_cast<unsigned int>(head->rtnh_ifindex)),
                                .weight = head->rtnh_hops + 1});
    }
    bytes = bytes.subspan(std::min(bytes.size(), (length + 3) & ~size_t{3}));
  }
}

}  // namespace

void append_kernel_route(const NetlinkMessage& message, const Family& family,
                         const DeviceName& name_of, std::vector<KernelRoute>& routes) {
  const auto head = PacketReader(message.payload).at<rtmsg>(0);
  if (message.header.nlmsg_type != RTM_NEWROUTE || !head) return;
  if (head->rtm_family != family.address_family || head->rtm_type != RTN_UNICAST ||
      (head->rtm_flags & RTM_F_CLONED) != 0 || head->rtm_dst_len > address_size(family) * 8) {
    return;
  }
  Parts parts;
  parts.table = head->rtm_table;
  read_parts(message.payload.subspan(sizeof(rtmsg)), family, parts);
  if (parts.table != RT_TABLE_MAIN) return;
  if (parts.destination.empty()) parts.destination = address_text(family, {});

  KernelRoute& route = routes.emplace_back();
  route.destination = fmt::format("{}/{}", parts.destination, head->rtm_dst_len);
  route.metric = parts.metric;
  route.protocol = head->rtm_protocol;
  if (parts.ifindex != 0 && (head->rtm_flags & RTNH_F_DEAD) == 0)
    route.nexthops.push_back({std::move(parts.gateway), name_of(parts.ifindex), 1});
  append_nexthops(parts.nexthops, family, name_of, route);
}

}  // namespace lbctl
