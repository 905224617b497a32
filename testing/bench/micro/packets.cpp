// Probes as they are built, and what answers them as it is read.
#include <arpa/inet.h>

#include <algorithm>
#include <vector>

#include "packets/arp.h"
#include "packets/checksum.h"
#include "packets/icmp_echo.h"
#include "packets/neighbor_discovery.h"
#include "packets/packet_reader.h"
#include "packets/wire_reply.h"
#include "support/subject.h"

namespace {

using Bytes = std::vector<uint8_t>;

constexpr uint16_t kIdentifier = 0x1234;
constexpr uint32_t kKey = 0x5002;
constexpr MacAddress kRouter{0x02, 0xaa, 0xbb, 0xcc, 0xdd, 0xee};
constexpr MacAddress kGateway{0x02, 0x11, 0x22, 0x33, 0x44, 0x55};

template <class Address>
Address address_of(const char* text) {
  Address address;
  inet_pton(sizeof(Address) == sizeof(in_addr) ? AF_INET : AF_INET6, text, &address);
  return address;
}

FrameAddresses<in_addr> addresses4() {
  return {kGateway, kRouter, address_of<in_addr>("192.0.2.2"), address_of<in_addr>("198.51.100.7")};
}

FrameAddresses<in6_addr> addresses6() {
  return {kGateway, kRouter, address_of<in6_addr>("2001:db8::2"),
          address_of<in6_addr>("2001:db8:7::7")};
}

template <class Record>
Bytes copy_of(const Record& record) {
  const auto bytes = bytes_of(record);
  return {bytes.begin(), bytes.end()};
}

// What comes back for a frame, from the IP header on.
Bytes reply4() {
  EchoFrame frame = make_echo_frame(addresses4(), kIdentifier, 1, kKey);
  frame.echo.type = kIcmpEchoReply;
  frame.echo.checksum = 0;
  frame.echo.checksum = inet_checksum(bytes_of(frame.echo));
  const Bytes bytes = copy_of(frame);
  return {bytes.begin() + sizeof(EthernetHeader), bytes.end()};
}

Bytes reply6() {
  EchoFrame6 frame = make_echo_frame(addresses6(), kIdentifier, 1, kKey);
  frame.echo.type = kIcmp6EchoReply;
  frame.echo.checksum = 0;
  const Bytes message = copy_of(frame.echo);
  frame.echo.checksum = icmp6_checksum(frame.ip.source, frame.ip.destination, message.data(),
                                       static_cast<uint32_t>(message.size()));
  const Bytes bytes = copy_of(frame);
  return {bytes.begin() + sizeof(EthernetHeader), bytes.end()};
}

Bytes arp_reply() {
  ArpFrame frame = make_arp_request(kGateway, address_of<in_addr>("192.0.2.1"),
                                    address_of<in_addr>("192.0.2.2"));
  frame.operation = kArpReply;
  Bytes bytes = copy_of(frame);
  bytes.resize(60);  // as Ethernet pads it
  return bytes;
}

Bytes advertisement() {
  const auto address = address_of<in6_addr>("fe80::1");
  NeighborFrame frame =
      make_solicitation(kGateway, address, address_of<in6_addr>("fe80::2"), address);
  frame.message.type = kNeighborAdvertisement;
  frame.message.option_type = kTargetLinkAddressOption;
  return copy_of(frame);
}

const Registration kFrame4("packets/echo frame, IPv4", [] {
  return [addresses = addresses4()] { keep(make_echo_frame(addresses, kIdentifier, 1, kKey)); };
});
const Registration kFrame6("packets/echo frame, IPv6", [] {
  return [addresses = addresses6()] { keep(make_echo_frame(addresses, kIdentifier, 1, kKey)); };
});
const Registration kRaw4("packets/raw request, IPv4",
                         [] { return [] { keep(make_raw_echo(kIdentifier, 1, kKey)); }; });
const Registration kRaw6("packets/raw request, IPv6", [] {
  return [] { keep(make_raw_echo6(kIdentifier, 1700000000, 1, kKey)); };
});
const Registration kSum("packets/checksum of 1500 bytes", [] {
  Bytes bytes(1500);
  for (size_t i = 0; i < bytes.size(); ++i) bytes[i] = static_cast<uint8_t>(i * 7);
  return [bytes] { keep(inet_checksum(bytes)); };
});
const Registration kKey4("packets/reply key, IPv4",
                         [] { return [reply = reply4()] { keep(echo_reply_key(reply)); }; });
const Registration kKey6("packets/reply key, IPv6", [] {
  const Bytes reply = reply6();
  const Bytes message(reply.begin() + sizeof(Ipv6Header), reply.end());
  return [message] { keep(echo6_reply_key(message)); };
});
const Registration kWire4("packets/wire reply, IPv4",
                          [] { return [reply = reply4()] { keep(parse_wire_reply4(reply)); }; });
const Registration kWire6("packets/wire reply, IPv6",
                          [] { return [reply = reply6()] { keep(parse_wire_reply6(reply)); }; });
const Registration kArpRequested("packets/ARP request", [] {
  return [source = address_of<in_addr>("192.0.2.2"), target = address_of<in_addr>("192.0.2.1")] {
    keep(make_arp_request(kRouter, source, target));
  };
});
const Registration kArpAnswered("packets/ARP reply", [] {
  return [reply = arp_reply()] { keep(parse_arp_reply(reply)); };
});
const Registration kSolicitation("packets/neighbour solicitation", [] {
  const auto target = address_of<in6_addr>("fe80::1");
  const auto group = solicited_node_address(address_of<in6_addr>("ff02::1:ff00:0"), target);
  return [target, group, source = address_of<in6_addr>("fe80::2")] {
    keep(make_solicitation(kRouter, source, group, target));
  };
});
const Registration kAdvertisement("packets/neighbour advertisement", [] {
  return [frame = advertisement()] { keep(parse_neighbor_advertisement(frame)); };
});

}  // namespace
