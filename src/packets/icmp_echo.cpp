#include "packets/icmp_echo.h"

#include <unistd.h>

#include <cstddef>

#include "packets/checksum.h"
#include "packets/packet_reader.h"

namespace {

constexpr size_t kIpv4HeaderSize = 20;

IcmpEcho make_echo(uint8_t type, uint16_t identifier, uint16_t sequence, uint32_t key) {
  IcmpEcho echo;
  echo.type = type;
  echo.identifier = identifier;
  echo.sequence = sequence;
  echo.key = key;
  return echo;
}

// A frame of either family with its addresses filled in.
template <class Frame, class Address>
Frame addressed_frame(const FrameAddresses<Address>& addresses, uint16_t ether_type) {
  Frame frame;
  frame.ethernet.destination = addresses.destination_mac;
  frame.ethernet.source = addresses.source_mac;
  frame.ethernet.type = ether_type;
  frame.ip.source = addresses.source;
  frame.ip.destination = addresses.destination;
  return frame;
}

std::optional<uint32_t> reply_key(std::span<const uint8_t> packet, size_t offset, uint8_t type) {
  const auto echo = PacketReader(packet).at<IcmpEcho>(offset);
  if (!echo || echo->type != type) return std::nullopt;
  return echo->key;
}

}  // namespace

uint16_t echo_identifier() { return static_cast<uint16_t>(getpid() & 0xffff); }

RawEchoRequest make_raw_echo(uint16_t identifier, uint16_t sequence, uint32_t key) {
  RawEchoRequest request;
  request.echo = make_echo(kIcmpEchoRequest, identifier, sequence, key);
  request.echo.checksum = inet_checksum(bytes_of(request.echo));
  return request;
}

RawEchoRequest6 make_raw_echo6(uint16_t identifier, uint32_t seconds, uint32_t microseconds,
                               uint32_t key) {
  // The kernel replaces this checksum with the one over the pseudo-header.
  constexpr size_t kSummed = offsetof(RawEchoRequest6, padding);
  RawEchoRequest6 request;
  request.identifier = identifier;
  request.sequence = 1;
  request.seconds = seconds;
  request.microseconds = microseconds;
  request.key = key;
  request.checksum = inet_checksum(bytes_of(request).first(kSummed));
  return request;
}

EchoFrame make_echo_frame(const FrameAddresses<in_addr>& addresses, uint16_t identifier,
                          uint16_t sequence, uint32_t key) {
  auto frame = addressed_frame<EchoFrame>(addresses, kEtherTypeIpv4);
  frame.ip.total_length = sizeof(Ipv4Header) + sizeof(IcmpEcho);
  frame.ip.protocol = kProtocolIcmp;
  frame.ip.checksum = inet_checksum(bytes_of(frame.ip));
  frame.echo = make_echo(kIcmpEchoRequest, identifier, sequence, key);
  frame.echo.checksum = inet_checksum(bytes_of(frame.echo));
  return frame;
}

EchoFrame6 make_echo_frame(const FrameAddresses<in6_addr>& addresses, uint16_t identifier,
                           uint16_t sequence, uint32_t key) {
  auto frame = addressed_frame<EchoFrame6>(addresses, kEtherTypeIpv6);
  frame.ip.payload_length = sizeof(IcmpEcho);
  frame.ip.next_header = kProtocolIcmpv6;
  frame.echo = make_echo(kIcmp6EchoRequest, identifier, sequence, key);
  const auto message = bytes_of(frame.echo);
  frame.echo.checksum = icmp6_checksum(addresses.source, addresses.destination, message.data(),
                                       static_cast<uint32_t>(message.size()));
  return frame;
}

std::optional<uint32_t> echo_reply_key(std::span<const uint8_t> packet) {
  return reply_key(packet, kIpv4HeaderSize, kIcmpEchoReply);
}

std::optional<uint32_t> echo6_reply_key(std::span<const uint8_t> packet) {
  return reply_key(packet, 0, kIcmp6EchoReply);
}

bool is_burst_reply(std::span<const uint8_t> packet, uint16_t sequence, uint32_t key) {
  const auto echo = PacketReader(packet).at<IcmpEcho>(kIpv4HeaderSize);
  return echo && echo->key == key && echo->sequence == sequence;
}
