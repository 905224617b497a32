#include "packets/arp.h"

#include <cstddef>

#include "packets/packet_reader.h"

ArpFrame make_arp_request(const MacAddress& source_mac, in_addr source, in_addr target) {
  ArpFrame frame;
  frame.ethernet.destination.fill(0xff);
  frame.ethernet.source = source_mac;
  frame.ethernet.type = kEtherTypeArp;
  frame.sender_mac = source_mac;
  frame.sender = source;
  frame.target = target;
  return frame;
}

std::optional<ArpReply> parse_arp_reply(std::span<const uint8_t> frame) {
  const PacketReader reader(frame);
  const auto arp = reader.at<ArpFrame>(0);
  if (!arp || arp->ethernet.type != kEtherTypeArp || arp->operation != kArpReply ||
      !is_station_address(arp->sender_mac)) {
    return std::nullopt;
  }
  ArpReply reply;
  reply.sender = arp->sender;
  reply.hardware = *reader.at<decltype(reply.hardware)>(offsetof(ArpFrame, sender_mac));
  return reply;
}
