// Answers of the kernel's route netlink. The first 16 bytes are the address that is looked for, the
// rest is what one read gave.
#include <algorithm>

#include "packets/family.h"
#include "packets/packet_reader.h"
#include "packets/route_message.h"
#include "support/bytes.h"
#include "support/property.h"

namespace {

using Kind = RouteAnswer::Kind;

// A neighbour message of the interface (0: of any), with the kernel's own macros: the first
// attribute of each type counts.
RouteAnswer naive_neighbor(const nlmsghdr* message, int available, const in6_addr& target,
                           unsigned int ifindex) {
  const auto* bytes = reinterpret_cast<const char*>(message);
  ndmsg neighbor;
  std::memcpy(&neighbor, bytes + 16, sizeof(neighbor));
  if (ifindex != 0 && static_cast<unsigned int>(neighbor.ndm_ifindex) != ifindex) return {};
  int budget = std::min(available - 28, static_cast<int>(message->nlmsg_len));
  const rtattr* address = nullptr;
  const rtattr* mac = nullptr;
  for (auto* attribute = reinterpret_cast<const rtattr*>(bytes + 28); RTA_OK(attribute, budget);
       attribute = RTA_NEXT(attribute, budget)) {
    if (attribute->rta_type == NDA_DST && address == nullptr) address = attribute;
    if (attribute->rta_type == NDA_LLADDR && mac == nullptr) mac = attribute;
  }
  RouteAnswer answer;
  if (address != nullptr && RTA_PAYLOAD(address) >= 16 && mac != nullptr && RTA_PAYLOAD(mac) >= 6 &&
      std::memcmp(RTA_DATA(address), &target, 16) == 0) {
    answer.kind = Kind::kFound;
    std::memcpy(answer.mac.data(), RTA_DATA(mac), 6);
  }
  return answer;
}

// A second reading, of memory as aligned as the macros want it.
RouteAnswer naive_answer(std::span<const uint8_t> bytes, const in6_addr& target,
                         unsigned int ifindex) {
  const Bytes copy(bytes.begin(), bytes.end());
  auto length = static_cast<int>(copy.size());
  for (auto* message = reinterpret_cast<const nlmsghdr*>(copy.data());
       length >= 0 && NLMSG_OK(message, static_cast<uint32_t>(length));
       message = NLMSG_NEXT(message, length)) {
    RouteAnswer answer;
    if (message->nlmsg_type == NLMSG_DONE) {
      answer.kind = Kind::kDone;
    } else if (message->nlmsg_type == NLMSG_ERROR) {
      if (message->nlmsg_len < 20) continue;
      int code;
      std::memcpy(&code, NLMSG_DATA(message), sizeof(code));
      answer.kind = code == 0 ? Kind::kDone : Kind::kRefused;
      answer.error = code == INT32_MIN ? INT32_MIN : -code;
    } else if (length > 28) {
      answer = naive_neighbor(message, length, target, ifindex);
    }
    if (answer.kind != Kind::kMore) return answer;
  }
  return {};
}

void check_read(std::span<const uint8_t> bytes, const in6_addr& target, unsigned int ifindex) {
  const std::string text = address_to_text(AF_INET6, &target);
  const RouteAnswer answer = read_route_answer(bytes, text, ifindex);
  const RouteAnswer expected = naive_answer(bytes, target, ifindex);
  HOLDS(answer.kind == expected.kind);
  HOLDS(answer.error == expected.error);
  HOLDS(answer.mac == expected.mac);
  HOLDS((answer.error != 0) == (answer.kind == Kind::kRefused));
  // A text that is no address in canonical form has no entry.
  for (const char* other : {"", "FE80::1", "fe80::1 ", "192.0.2.1"}) {
    HOLDS(read_route_answer(bytes, other, ifindex).kind != Kind::kFound);
  }
}

// For any interface, that of the first message, and others.
void check_received(std::span<const uint8_t> bytes, const in6_addr& target) {
  uint32_t first = 7;
  if (bytes.size() >= 24) std::memcpy(&first, bytes.data() + 20, sizeof(first));
  for (const unsigned int ifindex : {0u, first, first + 1, 1u, 2u}) {
    check_read(bytes, target, ifindex);
  }
}

void check_state(std::span<const uint8_t> bytes) {
  const auto state = read_neighbor_state(bytes);
  uint16_t type = 0;
  if (bytes.size() >= 28) std::memcpy(&type, bytes.data() + 4, sizeof(type));
  HOLDS(state.has_value() == (type == RTM_NEWNEIGH));
  if (state) HOLDS(is_at(bytes, 24, *state));
}

// An entry as we write it, behind an attribute of any bytes.
void check_own(std::span<const uint8_t> bytes, const in6_addr& target) {
  const auto mac = take<MacAddress>(bytes);
  Bytes message;
  NeighborRequest head = make_neighbor_request(RTM_NEWNEIGH, 0);
  head.neighbor.ndm_ifindex = 5;
  head.neighbor.ndm_state = NUD_STALE;
  append(message, head);
  const bool fits = bytes.size() <= 65531;
  const Bytes before = message;
  HOLDS(append_attribute(message, NDA_CACHEINFO, bytes, kNeighborRequestBound) == fits);
  if (!fits) HOLDS(message == before);
  const size_t end = message.size() + 20 + 12;
  HOLDS(append_attribute(message, NDA_DST, bytes_of(target), kNeighborRequestBound));
  HOLDS(!append_attribute(message, NDA_LLADDR, mac, end - 1));
  HOLDS(append_attribute(message, NDA_LLADDR, mac, end));
  HOLDS(message.size() == end && is_at(message, 0, static_cast<uint32_t>(end)));

  const std::string text = address_to_text(AF_INET6, &target);
  const RouteAnswer answer = read_route_answer(message, text);
  HOLDS(answer.kind == Kind::kFound && answer.mac == mac);
  HOLDS(read_route_answer(message, text, 5).kind == Kind::kFound);
  HOLDS(read_route_answer(message, text, 6).kind == Kind::kMore);
  HOLDS(read_neighbor_state(message) == NUD_STALE);
  message.pop_back();
  HOLDS(read_route_answer(message, text).kind == Kind::kMore);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  std::span<const uint8_t> bytes(data, size);
  const auto target = take<in6_addr>(bytes);
  const ExactCopy answer(bytes);
  check_received(answer.bytes(), target);
  check_state(answer.bytes());
  check_own(answer.bytes(), target);
  return 0;
}
