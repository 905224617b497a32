#include "packets/route_entry.h"

#include <linux/icmpv6.h>

#include <algorithm>
#include <span>
#include <utility>

#include "packets/packet_reader.h"

namespace {

size_t address_size(const Family& family) {
  return family.ipv6 ? sizeof(in6_addr) : sizeof(in_addr);
}

// The text of an address of the family that begins with `data`, the rest being zero; empty for data
// that are too long.
std::string address_text(const Family& family, std::span<const uint8_t> data) {
  in6_addr address{};  // room for an address of either family
  if (data.size() > address_size(family)) return {};
  std::copy(data.begin(), data.end(), address.s6_addr);
  return address_to_text(family.address_family, &address);
}

// Empty for data that are no gateway of the family.
std::string gateway_text(const Family& family, std::span<const uint8_t> data) {
  const auto is_zero = [](uint8_t byte) { return byte == 0; };
  if (data.size() != address_size(family) || std::all_of(data.begin(), data.end(), is_zero)) {
    return {};
  }
  return address_text(family, data);
}

// RTA_VIA: behind the number of its family.
std::string via_text(std::span<const uint8_t> data) {
  const auto number = PacketReader(data).at<uint16_t>(0);
  if (!number || (*number != AF_INET && *number != AF_INET6)) return {};
  return gateway_text(family_of(*number == AF_INET6), data.subspan(sizeof(uint16_t)));
}

int preference_of(uint8_t advertised) {
  if (advertised == ICMPV6_ROUTER_PREF_HIGH) return 1;
  return advertised == ICMPV6_ROUTER_PREF_LOW ? -1 : 0;
}

void read_number(std::span<const uint8_t> data, uint32_t& number) {
  number = PacketReader(data).at<uint32_t>(0).value_or(number);
}

// What the attributes of a route, or of one of its next hops, say.
struct Parts {
  uint32_t table = RT_TABLE_UNSPEC;
  RouteEntry route;
  RouteNexthop nexthop;
  std::span<const uint8_t> nexthops;
};

void read_parts(std::span<const uint8_t> attributes, const Family& family, Parts& parts) {
  while (const auto attribute = take_attribute(attributes)) {
    switch (attribute->type) {
      case RTA_TABLE:
        read_number(attribute->data, parts.table);
        break;
      case RTA_DST:
        parts.route.destination = address_text(family, attribute->data);
        break;
      case RTA_PRIORITY:
        read_number(attribute->data, parts.route.metric);
        break;
      case RTA_PREF:
        if (!attribute->data.empty()) parts.route.preference = preference_of(attribute->data[0]);
        break;
      case RTA_OIF:
        read_number(attribute->data, parts.nexthop.ifindex);
        break;
      case RTA_GATEWAY:
        parts.nexthop.gateway = gateway_text(family, attribute->data);
        break;
      case RTA_VIA:
        parts.nexthop.via = via_text(attribute->data);
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
                     std::vector<RouteNexthop>& nexthops) {
  while (const auto head = PacketReader(bytes).at<rtnexthop>(0)) {
    const size_t length = head->rtnh_len;
    if (length < sizeof(rtnexthop) || length > bytes.size()) break;
    Parts parts;
    parts.nexthop.ifindex = static_cast<unsigned int>(head->rtnh_ifindex);
    parts.nexthop.weight = head->rtnh_hops + 1U;
    parts.nexthop.is_dead = (head->rtnh_flags & RTNH_F_DEAD) != 0;
    read_parts(bytes.subspan(sizeof(rtnexthop), length - sizeof(rtnexthop)), family, parts);
    nexthops.push_back(std::move(parts.nexthop));
    bytes = bytes.subspan(std::min(bytes.size(), (length + 3) & ~size_t{3}));
  }
}

}  // namespace

std::optional<RouteEntry> read_route_entry(const NetlinkMessage& message, const Family& family) {
  const auto head = PacketReader(message.payload).at<rtmsg>(0);
  if (message.header.nlmsg_type != RTM_NEWROUTE || !head) return std::nullopt;
  if (head->rtm_family != family.address_family || head->rtm_type != RTN_UNICAST ||
      (head->rtm_flags & RTM_F_CLONED) != 0 || head->rtm_dst_len > address_size(family) * 8) {
    return std::nullopt;
  }
  Parts parts;
  parts.table = head->rtm_table;
  parts.route.destination = address_text(family, {});
  parts.nexthop.is_dead = (head->rtm_flags & RTNH_F_DEAD) != 0;
  read_parts(message.payload.subspan(sizeof(rtmsg)), family, parts);
  if (parts.table != RT_TABLE_MAIN || parts.route.destination.empty()) return std::nullopt;
  parts.route.prefix_length = head->rtm_dst_len;
  parts.route.protocol = head->rtm_protocol;
  if (parts.nexthop.ifindex != 0) parts.route.nexthops.push_back(std::move(parts.nexthop));
  append_nexthops(parts.nexthops, family, parts.route.nexthops);
  return std::move(parts.route);
}
