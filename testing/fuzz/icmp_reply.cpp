// Packets that a raw ICMP socket delivers, with their IP header.
#include "packets/icmp_echo.h"
#include "packets/packet_reader.h"
#include "support/bytes.h"
#include "support/property.h"

namespace {

void check_received(std::span<const uint8_t> packet) {
  const auto key = echo_reply_key(packet);
  HOLDS(key.has_value() == (packet.size() >= 32 && packet[20] == 0));
  if (key) HOLDS(*key == number32_at(packet, 28));
}

// A request, on its way and back: the kernel puts a header before it, the far end changes the type.
void check_own(std::span<const uint8_t> bytes) {
  const auto identifier = take<uint16_t>(bytes);
  const auto sequence = take<uint16_t>(bytes);
  const auto key = take<uint32_t>(bytes);

  const RawEchoRequest request = make_raw_echo(identifier, sequence, key);
  HOLDS(is_sum_right(bytes_of(request)));
  Bytes packet(20);
  append(packet, request);
  HOLDS(!echo_reply_key(packet));
  packet[20] = 0;
  HOLDS(echo_reply_key(packet) == key);

  auto addresses = take<FrameAddresses<in_addr>>(bytes);
  const EchoFrame frame = make_echo_frame(addresses, identifier, sequence, key);
  HOLDS(is_sum_right(bytes_of(frame.ip)));
  HOLDS(is_sum_right(bytes_of(frame.echo)));
  packet.clear();
  append(packet, frame.ip);
  append(packet, frame.echo);
  HOLDS(!echo_reply_key(packet));
  packet[20] = 0;
  HOLDS(echo_reply_key(packet) == key);
  packet.pop_back();
  HOLDS(!echo_reply_key(packet));
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const ExactCopy packet({data, size});
  check_received(packet.bytes());
  check_own(packet.bytes());
  return 0;
}
