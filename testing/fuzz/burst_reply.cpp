// Packets that a burst of an extended ping waits for. The first six bytes are the sequence and the
// key that are waited for, the rest is the packet.
#include "packets/icmp_echo.h"
#include "packets/packet_reader.h"
#include "support/bytes.h"
#include "support/property.h"

namespace {

void check_received(std::span<const uint8_t> packet, uint16_t sequence, uint32_t key) {
  const bool whole = packet.size() >= 32;
  const bool expected =
      whole && number16_at(packet, 26) == sequence && number32_at(packet, 28) == key;
  HOLDS(is_burst_reply(packet, sequence, key) == expected);
  if (!whole) return;

  // Exactly one pair is this packet's.
  const uint16_t own_sequence = number16_at(packet, 26);
  const uint32_t own_key = number32_at(packet, 28);
  HOLDS(is_burst_reply(packet, own_sequence, own_key));
  HOLDS(!is_burst_reply(packet, own_sequence, own_key + 1));
  HOLDS(!is_burst_reply(packet, static_cast<uint16_t>(own_sequence + 1), own_key));
  HOLDS(!is_burst_reply(packet.first(31), own_sequence, own_key));
}

void check_own(uint16_t sequence, uint32_t key) {
  Bytes packet(20);
  append(packet, make_raw_echo(0x4242, sequence, key));
  packet[20] = kIcmpEchoReply;
  HOLDS(is_burst_reply(packet, sequence, key));
  HOLDS(echo_reply_key(packet) == key);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  std::span<const uint8_t> bytes(data, size);
  const uint16_t sequence = take<Be16>(bytes);
  const uint32_t key = take<Be32>(bytes);
  const ExactCopy packet(bytes);
  check_received(packet.bytes(), sequence, key);
  check_own(sequence, key);
  return 0;
}
