// ARP frames as the receiver of a VRF reads them from the wire.
#include "packets/arp.h"

#include "packets/packet_reader.h"
#include "support/bytes.h"
#include "support/property.h"

namespace {

void check_received(std::span<const uint8_t> frame) {
  const auto reply = parse_arp_reply(frame);
  const bool is_reply = frame.size() >= 42 && number16_at(frame, 12) == 0x0806 &&
                        number16_at(frame, 20) == 2 && is_station_at(frame, 22);
  HOLDS(reply.has_value() == is_reply);
  if (!reply) return;
  HOLDS(is_at(frame, 28, reply->sender));
  HOLDS(is_at(frame, 22, reply->hardware));
}

// A request is no reply; turned into one of a station, it says what was asked with.
void check_own(std::span<const uint8_t> bytes) {
  const auto mac = take<MacAddress>(bytes);
  const auto source = take<in_addr>(bytes);
  const auto target = take<in_addr>(bytes);
  ArpFrame frame = make_arp_request(mac, source, target);
  HOLDS(!parse_arp_reply(bytes_of(frame)));
  frame.operation = kArpReply;
  const auto reply = parse_arp_reply(bytes_of(frame));
  HOLDS(reply.has_value() == is_station_at(mac, 0));
  HOLDS(is_at(bytes_of(frame), 38, target));
  if (!reply) return;
  HOLDS(reply->sender.s_addr == source.s_addr);
  HOLDS(std::memcmp(reply->hardware.data(), mac.data(), mac.size()) == 0);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const ExactCopy frame({data, size});
  check_received(frame.bytes());
  check_own(frame.bytes());
  return 0;
}
