#include "packets/ip_headers.h"

#include "packets/checksum.h"
#include "packets/packet_reader.h"

namespace {

struct Ipv6PseudoHeader {
  in6_addr source;
  in6_addr destination;
  Be32 upper_layer_length;
  uint8_t zero[3] = {0, 0, 0};
  uint8_t next_header = kProtocolIcmpv6;
} __attribute__((packed));

static_assert(sizeof(Ipv6PseudoHeader) == 40);

}  // namespace

uint32_t icmp6_pseudo_header_words(const in6_addr& source, const in6_addr& destination,
                                   uint32_t length) {
  const Ipv6PseudoHeader pseudo{source, destination, length};
  return checksum_words(bytes_of(pseudo));
}

uint16_t icmp6_checksum(const in6_addr& source, const in6_addr& destination, const uint8_t* message,
                        uint32_t length) {
  const uint32_t pseudo_header = icmp6_pseudo_header_words(source, destination, length);
  return checksum_fold(checksum_words({message, length}, pseudo_header));
}
