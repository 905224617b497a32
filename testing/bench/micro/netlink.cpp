// What the kernel says of routes and neighbours.
#include <arpa/inet.h>

#include <cstring>
#include <vector>

#include "packets/default_route.h"
#include "packets/packet_reader.h"
#include "packets/route_message.h"
#include "support/subject.h"

namespace {

using Bytes = std::vector<uint8_t>;

template <class Body>
Bytes message_of(uint16_t type, const Body& body) {
  nlmsghdr header{};
  header.nlmsg_len = sizeof(header) + sizeof(body);
  header.nlmsg_type = type;
  Bytes message(header.nlmsg_len);
  std::memcpy(message.data(), &header, sizeof(header));
  std::memcpy(message.data() + sizeof(header), &body, sizeof(body));
  return message;
}

template <class Value>
void add(Bytes& message, uint16_t type, const Value& value) {
  append_attribute(message, type, bytes_of(value), kNeighborRequestBound);
}

// The main table of a router with a default route by every tenth interface.
Bytes route_dump(uint32_t routes) {
  Bytes dump;
  for (uint32_t i = 1; i <= routes; ++i) {
    rtmsg route{};
    route.rtm_family = AF_INET;
    route.rtm_dst_len = i % 10 == 0 ? 0 : 24;
    route.rtm_table = RT_TABLE_MAIN;
    route.rtm_protocol = RTPROT_DHCP;
    route.rtm_type = RTN_UNICAST;
    Bytes message = message_of(RTM_NEWROUTE, route);
    add(message, RTA_TABLE, uint32_t{RT_TABLE_MAIN});
    if (route.rtm_dst_len != 0) add(message, RTA_DST, htonl(0x0a000000 + i * 256));
    add(message, RTA_PRIORITY, uint32_t{100});
    if (route.rtm_dst_len == 0) add(message, RTA_GATEWAY, htonl(0xc0000200 + i % 256));
    add(message, RTA_OIF, i);
    dump.insert(dump.end(), message.begin(), message.end());
  }
  return dump;
}

in6_addr neighbour(uint32_t number) {
  in6_addr address{};
  inet_pton(AF_INET6, "2001:db8::", &address);
  address.s6_addr[14] = static_cast<uint8_t>(number / 256);
  address.s6_addr[15] = static_cast<uint8_t>(number % 256);
  return address;
}

Bytes neighbour_entry(uint32_t number) {
  ndmsg entry{};
  entry.ndm_family = AF_INET6;
  entry.ndm_ifindex = 7;
  entry.ndm_state = NUD_REACHABLE;
  Bytes message = message_of(RTM_NEWNEIGH, entry);
  add(message, NDA_DST, neighbour(number));
  add(message, NDA_LLADDR, MacAddress{0x02, 0, 0, 0, 0, static_cast<uint8_t>(number)});
  return message;
}

const Registration kRoutes("netlink/1000 routes", [] {
  return [dump = route_dump(1000)] {
    std::vector<DefaultRoute> routes;
    std::span<const uint8_t> rest = dump;
    while (const auto message = take_message(rest)) append_default_routes(*message, kIpv4, routes);
    keep(routes);
  };
});

const Registration kNeighbour("netlink/neighbour", [] {
  return [answer = neighbour_entry(1), target = std::string("2001:db8::1")] {
    keep(read_route_answer(answer, target, 7));
  };
});

// The one that is asked for is the last.
const Registration kNeighbours("netlink/100 neighbours", [] {
  Bytes answer;
  for (uint32_t i = 1; i <= 100; ++i) {
    const Bytes entry = neighbour_entry(i);
    answer.insert(answer.end(), entry.begin(), entry.end());
  }
  return [answer, target = std::string("2001:db8::64")] {
    keep(read_route_answer(answer, target, 7));
  };
});

const Registration kState("netlink/neighbour state", [] {
  return [answer = neighbour_entry(1)] { keep(read_neighbor_state(answer)); };
});

}  // namespace
