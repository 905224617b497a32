// Neighbour advertisements as the receiver of a VRF reads them from the wire.
#include "packets/neighbor_discovery.h"
#include "packets/packet_reader.h"
#include "support/bytes.h"
#include "support/property.h"

namespace {

void check_received(std::span<const uint8_t> frame) {
  const auto advertisement = parse_neighbor_advertisement(frame);
  // ICMPv6 with the hop limit that no router leaves, and the target's link-layer address first.
  const bool is_advertisement = frame.size() >= 86 && number16_at(frame, 12) == 0x86dd &&
                                frame[20] == 58 && frame[21] == 255 && frame[54] == 136 &&
                                frame[78] == 2 && frame[79] == 1 && is_station_at(frame, 80);
  HOLDS(advertisement.has_value() == is_advertisement);
  if (!advertisement) return;
  HOLDS(is_at(frame, 62, advertisement->target));
  HOLDS(is_at(frame, 80, advertisement->mac));
  HOLDS(is_station_at(advertisement->mac, 0));
}

// The sum over the pseudo-header: both addresses, the length, the next header.
bool is_checksum_right(std::span<const uint8_t> frame) {
  uint64_t sum = 32 + 58;
  for (size_t offset = 22; offset < 54; offset += 2) sum += number16_at(frame, offset);
  return is_sum_right(frame.subspan(54), sum);
}

// A solicitation is no advertisement; turned into one of a station, it says what was asked with.
void check_own(std::span<const uint8_t> bytes) {
  const auto mac = take<MacAddress>(bytes);
  const auto source = take<in6_addr>(bytes);
  const auto target = take<in6_addr>(bytes);
  const auto prefix = take<in6_addr>(bytes);
  const in6_addr destination = solicited_node_address(prefix, target);
  HOLDS(std::memcmp(&destination, &prefix, 13) == 0);
  HOLDS(std::memcmp(destination.s6_addr + 13, target.s6_addr + 13, 3) == 0);

  NeighborFrame frame = make_solicitation(mac, source, destination, target);
  HOLDS(is_checksum_right(bytes_of(frame)));
  HOLDS(!parse_neighbor_advertisement(bytes_of(frame)));
  frame.message.type = kNeighborAdvertisement;
  HOLDS(!parse_neighbor_advertisement(bytes_of(frame)));  // with the sender's address only
  frame.message.option_type = kTargetLinkAddressOption;
  const auto advertisement = parse_neighbor_advertisement(bytes_of(frame));
  HOLDS(advertisement.has_value() == is_station_at(mac, 0));
  if (!advertisement) return;
  HOLDS(std::memcmp(&advertisement->target, &target, sizeof(target)) == 0);
  HOLDS(advertisement->mac == mac);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const ExactCopy frame({data, size});
  check_received(frame.bytes());
  check_own(frame.bytes());
  return 0;
}
