// ICMP and ICMPv6 echo messages (RFC 792, RFC 4443 section 4) as this daemon uses them: the first
// word of the payload is the probe key, by which a reply is matched.
#pragma once

#include <array>
#include <cstdint>
#include <optional>
#include <span>

#include "packets/byte_order.h"
#include "packets/ethernet.h"
#include "packets/icmp.h"
#include "packets/ip_headers.h"

//  0                   1                   2                   3
//  0 1 2 3 4 5 6 7 8 9 0 1 2 3 4 5 6 7 8 9 0 1 2 3 4 5 6 7 8 9 0 1
// +---------------+---------------+-------------------------------+
// |      Type     |      Code     |            Checksum           |
// +---------------+---------------+-------------------------------+
// |           Identifier          |            Sequence           |
// +-------------------------------+-------------------------------+
// |                           Probe key                           |
// +---------------------------------------------------------------+
struct IcmpEcho {
  uint8_t type = kIcmpEchoRequest;
  uint8_t code = 0;
  Be16 checksum;
  Be16 identifier;
  Be16 sequence;
  Be32 key;
} __attribute__((packed));

static_assert(sizeof(IcmpEcho) == 12);

// The request of the raw IPv4 path; the kernel adds the IP header.
struct RawEchoRequest {
  IcmpEcho echo;
  std::array<uint8_t, 12> padding{};
} __attribute__((packed));

static_assert(sizeof(RawEchoRequest) == 24);

// The request of the raw IPv6 path. The key stands behind the time of sending, as in the
// requests that peers know, so a reply is as a rule not matched: the receiver takes the first word.
struct RawEchoRequest6 {
  uint8_t type = kIcmp6EchoRequest;
  uint8_t code = 0;
  Be16 checksum;
  Be16 identifier;
  Be16 sequence;
  Be32 seconds;
  Be32 microseconds;
  Be32 key;
  std::array<uint8_t, 20> padding{};
} __attribute__((packed));

static_assert(sizeof(RawEchoRequest6) == 40);

// Whole Ethernet frames of the link-level path.
struct EchoFrame {
  EthernetHeader ethernet;
  Ipv4Header ip;
  IcmpEcho echo;
} __attribute__((packed));

struct EchoFrame6 {
  EthernetHeader ethernet;
  Ipv6Header ip;
  IcmpEcho echo;
} __attribute__((packed));

static_assert(sizeof(EchoFrame) == 46);
static_assert(sizeof(EchoFrame6) == 66);

// Where a probe frame goes and comes from; addresses in network byte order.
template <class Address>
struct FrameAddresses {
  MacAddress destination_mac{};
  MacAddress source_mac{};
  Address source{};
  Address destination{};
};

// The identifier of every echo request and of its connection-tracking record: the low 16 bits of
// the process's id. Replies are told by their key, not by this.
uint16_t echo_identifier();

// The requests, with their checksums. The raw ones carry sequence 1 unless a burst counts.
RawEchoRequest make_raw_echo(uint16_t identifier, uint16_t sequence, uint32_t key);
RawEchoRequest6 make_raw_echo6(uint16_t identifier, uint32_t seconds, uint32_t microseconds,
                               uint32_t key);
EchoFrame make_echo_frame(const FrameAddresses<in_addr>& addresses, uint16_t identifier,
                          uint16_t sequence, uint32_t key);
EchoFrame6 make_echo_frame(const FrameAddresses<in6_addr>& addresses, uint16_t identifier,
                           uint16_t sequence, uint32_t key);

// The probe key of a packet that a raw IPv4 socket delivered, if it is an echo reply that reaches
// that far. The IP header is taken as 20 bytes long.
std::optional<uint32_t> echo_reply_key(std::span<const uint8_t> packet);

// The same for a raw ICMPv6 socket, which delivers no IP header.
std::optional<uint32_t> echo6_reply_key(std::span<const uint8_t> packet);

// True when a packet of a raw IPv4 socket carries this sequence and key. The type is not looked at:
// the sender's address already told whose packet it is.
bool is_burst_reply(std::span<const uint8_t> packet, uint16_t sequence, uint32_t key);
