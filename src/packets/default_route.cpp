#include "packets/default_route.h"

#include <linux/icmpv6.h>

#include <algorithm>

#include "packets/packet_reader.h"

namespace {

// The gateway's text; empty for data that are no gateway of the family.
std::string gateway_text(const Family& family, std::span<const uint8_t> data) {
  const size_t size = family.ipv6 ? sizeof(in6_addr) : sizeof(in_addr);
  const auto is_zero = [](uint8_t byte) { return byte == 0; };
  if (data.size() != size || std::all_of(data.begin(), data.end(), is_zero)) return {};
  in6_addr address;  // room for an address of either family
  std::copy(data.begin(), data.end(), address.s6_addr);
  return address_to_text(family.address_family, &address);
}

int preference_of(uint8_t advertised) {
  if (advertised == ICMPV6_ROUTER_PREF_HIGH) return 1;
  return advertised == ICMPV6_ROUTER_PREF_LOW ? -1 : 0;
}

// What the attributes of a route, or of one of its next hops, say.
struct RouteParts {
  uint32_t table = RT_TABLE_UNSPEC;
  DefaultRoute route;
  std::span<const uint8_t> nexthops;
};

void read_number(std::span<const uint8_t> data, uint32_t& number) {
  number = PacketReader(data).at<uint32_t>(0).value_or(number);
}

void read_parts(std::span<const uint8_t> attributes, const Family& family, RouteParts& parts) {
  while (const auto attribute = take_attribute(attributes)) {
    switch (attribute->type) {
      case RTA_TABLE:
        read_number(attribute->data, parts.table);
        break;
      case RTA_OIF:
        read_number(attribute->data, parts.route.ifindex);
        break;
      case RTA_PRIORITY:
        read_number(attribute->data, parts.route.metric);
        break;
      case RTA_PREF:
        if (!attribute->data.empty()) parts.route.preference = preference_of(attribute->data[0]);
        break;
      case RTA_GATEWAY:
        parts.route.gateway = gateway_text(family, attribute->data);
        break;
      case RTA_MULTIPATH:
        parts.nexthops = attribute->data;
        break;
      default:
        break;
    }
  }
}

void append_if_whole(const DefaultRoute& route, std::vector<DefaultRoute>& routes) {
  if (route.ifindex != 0 && !route.gateway.empty()) routes.push_back(route);
}

// RTA_MULTIPATH: heads with attributes of their own (rtnexthop), each padded to 4.
void append_nexthops(const RouteParts& whole, const Family& family,
                     std::vector<DefaultRoute>& routes) {
  std::span<const uint8_t> bytes = whole.nexthops;
  while (const auto head = PacketReader(bytes).at<rtnexthop>(0)) {
    const size_t length = head->rtnh_len;
    if (length < sizeof(rtnexthop) || length > bytes.size()) break;
    RouteParts parts{.table = whole.table, .route = whole.route, .nexthops = {}};
    parts.route.gateway.clear();
    parts.route.ifindex = static_cast<unsigned int>(head->rtnh_ifindex);
    read_parts(bytes.subspan(sizeof(rtnexthop), length - sizeof(rtnexthop)), family, parts);
    append_if_whole(parts.route, routes);
    bytes = bytes.subspan(std::min(bytes.size(), (length + 3) & ~size_t{3}));
  }
}

}  // namespace

DefaultRouteRequest make_default_route_request(const Family& family) {
  DefaultRouteRequest request;
  request.header.nlmsg_len = sizeof(request);
  request.header.nlmsg_type = RTM_GETROUTE;
  request.header.nlmsg_flags = NLM_F_REQUEST | NLM_F_DUMP;
  request.route.rtm_family = static_cast<uint8_t>(family.address_family);
  request.route.rtm_table = RT_TABLE_MAIN;
  request.route.rtm_type = RTN_UNICAST;
  return request;
}

void append_default_routes(const NetlinkMessage& message, const Family& family,
                           std::vector<DefaultRoute>& routes) {
  const auto head = PacketReader(message.payload).at<rtmsg>(0);
  if (message.header.nlmsg_type != RTM_NEWROUTE || !head) return;
  if (head->rtm_family != family.address_family || head->rtm_dst_len != 0 ||
      head->rtm_type != RTN_UNICAST || head->rtm_protocol == RTPROT_BIRD ||
      (head->rtm_flags & RTM_F_CLONED) != 0) {
    return;
  }
  RouteParts parts{.table = head->rtm_table, .route = {}, .nexthops = {}};
  read_parts(message.payload.subspan(sizeof(rtmsg)), family, parts);
  if (parts.table != RT_TABLE_MAIN) return;
  append_if_whole(parts.route, routes);
  append_nexthops(parts, family, routes);
}
