// Packets that a raw ICMPv6 socket delivers, which come without an IP header.
#include "packets/icmp_echo.h"
#include "packets/packet_reader.h"
#include "support/bytes.h"
#include "support/property.h"

namespace {

void check_received(std::span<const uint8_t> packet) {
  const auto key = echo6_reply_key(packet);
  HOLDS(key.has_value() == (packet.size() >= 12 && packet[0] == 129));
  if (key) HOLDS(*key == number32_at(packet, 8));
}

// The replies to our requests: the first word of the payload is the key on the link-level path, the
// time of sending on the raw one.
void check_own(std::span<const uint8_t> bytes) {
  const auto identifier = take<uint16_t>(bytes);
  const auto sequence = take<uint16_t>(bytes);
  const auto key = take<uint32_t>(bytes);
  const auto seconds = take<uint32_t>(bytes);
  const auto microseconds = take<uint32_t>(bytes);

  RawEchoRequest6 request = make_raw_echo6(identifier, seconds, microseconds, key);
  HOLDS(is_sum_right(bytes_of(request)));
  HOLDS(!echo6_reply_key(bytes_of(request)));
  request.type = kIcmp6EchoReply;
  HOLDS(echo6_reply_key(bytes_of(request)) == seconds);
  HOLDS(number32_at(bytes_of(request), 16) == key);

  const auto addresses = take<FrameAddresses<in6_addr>>(bytes);
  EchoFrame6 frame = make_echo_frame(addresses, identifier, sequence, key);
  uint64_t pseudo_header = sizeof(IcmpEcho) + kProtocolIcmpv6;
  for (size_t offset = 22; offset < 54; offset += 2) {
    pseudo_header += number16_at(bytes_of(frame), offset);
  }
  HOLDS(is_sum_right(bytes_of(frame.echo), pseudo_header));
  HOLDS(!echo6_reply_key(bytes_of(frame.echo)));
  frame.echo.type = kIcmp6EchoReply;
  HOLDS(echo6_reply_key(bytes_of(frame.echo)) == key);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const ExactCopy packet({data, size});
  check_received(packet.bytes());
  check_own(packet.bytes());
  return 0;
}
