// Echo replies as a packet socket delivers them, from the IP header on. The first byte chooses the
// family.
#include "packets/wire_reply.h"

#include "packets/icmp_echo.h"
#include "packets/packet_reader.h"
#include "support/bytes.h"
#include "support/property.h"

namespace {

// The pseudo-header's share: both addresses, the message's length and its protocol.
uint64_t pseudo_header_of(std::span<const uint8_t> packet, size_t length) {
  uint64_t sum = length + kProtocolIcmpv6;
  for (size_t offset = 8; offset < 40; offset += 2) sum += number16_at(packet, offset);
  return sum;
}

// As is_sum_right, with a zero behind a last odd byte.
bool is_any_sum_right(std::span<const uint8_t> message, uint64_t sum = 0) {
  if (message.size() % 2 != 0) sum += message.back() * uint64_t{256};
  return is_sum_right(message, sum);
}

void check_received4(std::span<const uint8_t> packet) {
  const auto reply = parse_wire_reply4(packet);
  if (!reply) return;
  HOLDS(packet[0] >> 4 == 4);
  const size_t header = (packet[0] & 15) * size_t{4};
  const size_t total = number16_at(packet, 2);
  HOLDS(header >= 20 && header + 12 <= total && total <= packet.size());
  HOLDS(packet[9] == 1 && number16_at(packet, 6) % 0x4000 == 0);
  HOLDS(packet[header] == 0);
  HOLDS(is_any_sum_right(packet.first(header)));
  HOLDS(is_any_sum_right(packet.subspan(header, total - header)));
  HOLDS(is_at(packet, 12, reply->sender));
  // What is read on is within the packet, and its key where the message has it.
  HOLDS(reply->packet.data() == packet.data() + header - 20);
  HOLDS(reply->packet.size() == total - header + 20);
  HOLDS(echo_reply_key(reply->packet) == number32_at(packet, header + 8));
  // The bytes behind it make no difference, and none of it may be missing.
  HOLDS(parse_wire_reply4(packet.first(total)));
  HOLDS(!parse_wire_reply4(packet.first(total - 1)));
}

void check_received6(std::span<const uint8_t> packet) {
  const auto reply = parse_wire_reply6(packet);
  if (!reply) return;
  HOLDS(packet[0] >> 4 == 6);
  const size_t length = number16_at(packet, 4);
  HOLDS(length >= 12 && 40 + length <= packet.size());
  HOLDS(packet[6] == 58 && packet[40] == 129);
  HOLDS(is_any_sum_right(packet.subspan(40, length), pseudo_header_of(packet, length)));
  HOLDS(is_at(packet, 8, reply->sender));
  HOLDS(reply->packet.data() == packet.data() + 40 && reply->packet.size() == length);
  HOLDS(echo6_reply_key(reply->packet) == number32_at(packet, 48));
  HOLDS(parse_wire_reply6(packet.first(40 + length)));
  HOLDS(!parse_wire_reply6(packet.first(40 + length - 1)));
}

// The reply to our own request, as the far end makes it, with whatever follows it on the wire.
template <class Address, class Parse>
void check_own(std::span<const uint8_t> bytes, uint8_t type, Parse parse) {
  const auto identifier = take<uint16_t>(bytes);
  const auto sequence = take<uint16_t>(bytes);
  const auto key = take<uint32_t>(bytes);
  const auto addresses = take<FrameAddresses<Address>>(bytes);
  auto frame = make_echo_frame(addresses, identifier, sequence, key);
  frame.echo.type = type;
  frame.echo.checksum = 0;
  uint64_t sum =
      type == kIcmp6EchoReply ? pseudo_header_of(bytes_of(frame.ip), sizeof(frame.echo)) : 0;
  for (size_t i = 0; i < sizeof(frame.echo); i += 2) sum += number16_at(bytes_of(frame.echo), i);
  frame.echo.checksum = static_cast<uint16_t>(65535 - sum % 65535);

  Bytes packet;
  append(packet, frame.ip);
  append(packet, frame.echo);
  const size_t whole = packet.size();
  packet.insert(packet.end(), bytes.begin(), bytes.end());
  const auto reply = parse(std::span<const uint8_t>(packet));
  HOLDS(reply);
  HOLDS(is_at(bytes_of(reply->sender), 0, addresses.source));
  HOLDS(number32_at(reply->packet, reply->packet.size() - 4) == key);
  packet[whole - 1] ^= 1;
  HOLDS(!parse(std::span<const uint8_t>(packet)));
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  std::span<const uint8_t> bytes(data, size);
  const bool ipv6 = take<uint8_t>(bytes) % 2 == 1;
  const ExactCopy packet(bytes);
  if (ipv6) {
    check_received6(packet.bytes());
    check_own<in6_addr>(packet.bytes(), kIcmp6EchoReply, parse_wire_reply6);
  } else {
    check_received4(packet.bytes());
    check_own<in_addr>(packet.bytes(), kIcmpEchoReply, parse_wire_reply4);
  }
  return 0;
}
