// A dump of the kernel's routes, as one read gave it. A second reading uses the kernel's own
// macros.
#include "packets/default_route.h"

#include <tuple>

#include "support/bytes.h"
#include "support/property.h"

namespace {

using Route = std::tuple<unsigned int, std::string, uint32_t, int>;

// The data of the last attribute of that type that holds `size` bytes; null without one.
const uint8_t* last_of(const rtattr* first, int budget, uint16_t type, size_t size) {
  const uint8_t* data = nullptr;
  for (const rtattr* attribute = first; RTA_OK(attribute, budget);
       attribute = RTA_NEXT(attribute, budget)) {
    if ((attribute->rta_type & NLA_TYPE_MASK) == type && RTA_PAYLOAD(attribute) >= size) {
      data = static_cast<const uint8_t*>(RTA_DATA(attribute));
    }
  }
  return data;
}

uint32_t number_of(const rtattr* first, int budget, uint16_t type, uint32_t otherwise) {
  const uint8_t* const data = last_of(first, budget, type, sizeof(otherwise));
  if (data != nullptr) std::memcpy(&otherwise, data, sizeof(otherwise));
  return otherwise;
}

// Routes without next hops of a multipath route.
std::vector<Route> naive_routes(std::span<const uint8_t> bytes, const Family& family) {
  const Bytes copy(bytes.begin(), bytes.end());
  std::vector<Route> routes;
  auto length = static_cast<int>(copy.size());
  for (auto* message = reinterpret_cast<const nlmsghdr*>(copy.data());
       length >= 0 && NLMSG_OK(message, static_cast<uint32_t>(length));
       message = NLMSG_NEXT(message, length)) {
    if (message->nlmsg_type != RTM_NEWROUTE || message->nlmsg_len < NLMSG_LENGTH(sizeof(rtmsg))) {
      continue;
    }
    const auto* head = static_cast<const rtmsg*>(NLMSG_DATA(message));
    if (head->rtm_family != family.address_family || head->rtm_dst_len != 0 ||
        head->rtm_type != RTN_UNICAST || head->rtm_protocol == RTPROT_BIRD ||
        (head->rtm_flags & RTM_F_CLONED) != 0) {
      continue;
    }
    const rtattr* const first = RTM_RTA(head);
    const int budget = static_cast<int>(message->nlmsg_len - NLMSG_LENGTH(sizeof(rtmsg)));
    if (number_of(first, budget, RTA_TABLE, head->rtm_table) != RT_TABLE_MAIN) continue;
    const unsigned int ifindex = number_of(first, budget, RTA_OIF, 0);
    int rest = budget;
    const rtattr* gateway = nullptr;  // the last, whatever its size
    for (const rtattr* one = first; RTA_OK(one, rest); one = RTA_NEXT(one, rest)) {
      if ((one->rta_type & NLA_TYPE_MASK) == RTA_GATEWAY) gateway = one;
    }
    const size_t size = family.ipv6 ? 16 : 4;
    if (ifindex == 0 || gateway == nullptr || RTA_PAYLOAD(gateway) != size) continue;
    const Bytes address(static_cast<const uint8_t*>(RTA_DATA(gateway)),
                        static_cast<const uint8_t*>(RTA_DATA(gateway)) + size);
    if (address == Bytes(size)) continue;
    const uint8_t* const pref = last_of(first, budget, RTA_PREF, 1);
    const int preference = pref == nullptr ? 0 : *pref == 1 ? 1 : *pref == 3 ? -1 : 0;
    routes.emplace_back(ifindex, address_to_text(family.address_family, address.data()),
                        number_of(first, budget, RTA_PRIORITY, 0), preference);
  }
  return routes;
}

bool has_multipath(std::span<const uint8_t> bytes) {
  while (const auto message = take_message(bytes)) {
    if (message->payload.size() < sizeof(rtmsg)) continue;
    auto attributes = message->payload.subspan(sizeof(rtmsg));
    while (const auto attribute = take_attribute(attributes)) {
      if (attribute->type == RTA_MULTIPATH) return true;
    }
  }
  return false;
}

void check_routes(std::span<const uint8_t> bytes, const Family& family) {
  std::vector<DefaultRoute> routes;
  auto rest = bytes;
  while (const auto message = take_message(rest)) {
    HOLDS(message->payload.size() + sizeof(nlmsghdr) == message->header.nlmsg_len);
    const DumpProgress progress = read_progress(*message);
    HOLDS((progress.kind == DumpProgress::Kind::kRefused) == (progress.error != 0));
    append_default_routes(*message, family, routes);
  }
  for (const DefaultRoute& route : routes) {
    in6_addr address;
    HOLDS(route.ifindex != 0);
    HOLDS(address_from_text(family.address_family, route.gateway, &address) == 1);
    HOLDS(route.preference >= -1 && route.preference <= 1);
  }
  if (has_multipath(bytes)) return;
  std::vector<Route> found;
  for (const DefaultRoute& route : routes) {
    found.emplace_back(route.ifindex, route.gateway, route.metric, route.preference);
  }
  HOLDS(found == naive_routes(bytes, family));
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const ExactCopy copy({data, size});
  for (const Family* family : {&kIpv4, &kIpv6}) check_routes(copy.bytes(), *family);
  return 0;
}
