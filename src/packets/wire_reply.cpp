#include "packets/wire_reply.h"

#include "packets/checksum.h"
#include "packets/icmp_echo.h"
#include "packets/ip_headers.h"
#include "packets/packet_reader.h"

std::optional<WireReply<in_addr>> parse_wire_reply4(std::span<const uint8_t> bytes) {
  const auto header = PacketReader(bytes).at<Ipv4Header>(0);
  if (!header || header->version_ihl >> 4 != 4) return std::nullopt;
  const size_t header_length = (header->version_ihl & 0xf) * size_t{4};
  const size_t total_length = header->total_length;
  if (header_length < sizeof(Ipv4Header) || total_length > bytes.size() ||
      total_length < header_length + sizeof(IcmpEcho)) {
    return std::nullopt;
  }
  if (header->protocol != kProtocolIcmp || (header->flags_fragment & kIpv4Fragment) != 0 ||
      !is_intact(bytes.first(header_length))) {
    return std::nullopt;
  }
  const auto message = bytes.subspan(header_length, total_length - header_length);
  if (message[0] != kIcmpEchoReply || !is_intact(message)) return std::nullopt;
  const size_t skipped = header_length - sizeof(Ipv4Header);
  return WireReply<in_addr>{bytes.subspan(skipped, total_length - skipped), header->source};
}

std::optional<WireReply<in6_addr>> parse_wire_reply6(std::span<const uint8_t> bytes) {
  const auto header = PacketReader(bytes).at<Ipv6Header>(0);
  if (!header || header->version_class_flow >> 28 != 6) return std::nullopt;
  const size_t length = header->payload_length;
  if (length > bytes.size() - sizeof(Ipv6Header) || length < sizeof(IcmpEcho) ||
      header->next_header != kProtocolIcmpv6) {
    return std::nullopt;
  }
  const auto message = bytes.subspan(sizeof(Ipv6Header), length);
  const uint32_t pseudo_header =
      icmp6_pseudo_header_words(header->source, header->destination, header->payload_length);
  if (message[0] != kIcmp6EchoReply || !is_intact(message, pseudo_header)) return std::nullopt;
  return WireReply<in6_addr>{message, header->source};
}
