#include "packets/neighbor_discovery.h"

#include <algorithm>

#include "packets/packet_reader.h"

in6_addr solicited_node_address(const in6_addr& prefix, const in6_addr& target) {
  in6_addr address = prefix;
  std::copy(target.s6_addr + 13, target.s6_addr + 16, address.s6_addr + 13);
  return address;
}

NeighborFrame make_solicitation(const MacAddress& source_mac, const in6_addr& source,
                                const in6_addr& destination, const in6_addr& target) {
  const uint8_t* low = target.s6_addr + 13;
  NeighborFrame frame;
  frame.ethernet.destination = {0x33, 0x33, 0xff, low[0], low[1], low[2]};
  frame.ethernet.source = source_mac;
  frame.ethernet.type = kEtherTypeIpv6;
  frame.ip.payload_length = sizeof(NeighborMessage);
  frame.ip.next_header = kProtocolIcmpv6;
  frame.ip.source = source;
  frame.ip.destination = destination;
  frame.message.target = target;
  frame.message.link_address = source_mac;
  const auto message = bytes_of(frame.message);
  frame.message.checksum =
      icmp6_checksum(source, destination, message.data(), static_cast<uint32_t>(message.size()));
  return frame;
}

std::optional<NeighborAdvertisement> parse_neighbor_advertisement(std::span<const uint8_t> frame) {
  const auto received = PacketReader(frame).at<NeighborFrame>(0);
  if (!received || received->ethernet.type != kEtherTypeIpv6 ||
      received->ip.next_header != kProtocolIcmpv6 || received->ip.hop_limit != kNeighborHopLimit) {
    return std::nullopt;
  }
  const NeighborMessage& message = received->message;
  if (message.type != kNeighborAdvertisement || message.option_type != kTargetLinkAddressOption ||
      message.option_length != 1 || !is_station_address(message.link_address)) {
    return std::nullopt;
  }
  return NeighborAdvertisement{received->message.target, received->message.link_address};
}
