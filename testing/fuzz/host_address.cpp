// A dump of the host's IPv6 addresses. The first 16 bytes are a destination, for which one of the
// addresses is chosen; the rest is what one read gave.
#include "packets/host_address.h"

#include <algorithm>

#include "packets/packet_reader.h"
#include "support/bytes.h"
#include "support/property.h"
#include "tests/link/source_selection.h"

namespace {

// A second reading of one message, with the kernel's own macros.
std::optional<HostAddress> naive_address(const NetlinkMessage& message) {
  if (message.header.nlmsg_type != RTM_NEWADDR || message.payload.size() < sizeof(ifaddrmsg)) {
    return std::nullopt;
  }
  const Bytes copy(message.payload.begin(), message.payload.end());
  const auto* head = reinterpret_cast<const ifaddrmsg*>(copy.data());
  if (head->ifa_family != AF_INET6) return std::nullopt;
  HostAddress found{{}, head->ifa_index, head->ifa_prefixlen, head->ifa_flags};
  const rtattr* address = nullptr;
  const rtattr* local = nullptr;
  int budget = static_cast<int>(copy.size() - sizeof(ifaddrmsg));
  for (auto* one = reinterpret_cast<const rtattr*>(copy.data() + sizeof(ifaddrmsg));
       RTA_OK(one, budget); one = RTA_NEXT(one, budget)) {
    const uint16_t type = one->rta_type & NLA_TYPE_MASK;
    if (type == IFA_ADDRESS) address = one;
    if (type == IFA_LOCAL) local = one;
    if (type == IFA_FLAGS && RTA_PAYLOAD(one) >= sizeof(found.flags)) {
      std::memcpy(&found.flags, RTA_DATA(one), sizeof(found.flags));
    }
  }
  for (const rtattr* one : {local, address}) {
    if (one == nullptr || RTA_PAYLOAD(one) < sizeof(found.address)) continue;
    std::memcpy(&found.address, RTA_DATA(one), sizeof(found.address));
    return found;
  }
  return std::nullopt;
}

bool is_same(const HostAddress& a, const HostAddress& b) {
  return IN6_ARE_ADDR_EQUAL(&a.address, &b.address) && a.ifindex == b.ifindex &&
         a.prefix_length == b.prefix_length && a.flags == b.flags;
}

// The choice is one of the addresses, and does not change when those that lost are taken away.
void check_choice(const std::vector<HostAddress>& addresses, const in6_addr& destination) {
  for (const unsigned int ifindex : {1U, 7U}) {
    const auto chosen = select_source(addresses, destination, ifindex);
    if (!chosen) continue;
    const auto is_chosen = [&](const HostAddress& one) {
      return IN6_ARE_ADDR_EQUAL(&one.address, &*chosen);
    };
    HOLDS(std::any_of(addresses.begin(), addresses.end(), is_chosen));
    std::vector<HostAddress> winners;
    std::copy_if(addresses.begin(), addresses.end(), std::back_inserter(winners), is_chosen);
    const auto again = select_source(winners, destination, ifindex);
    HOLDS(again && IN6_ARE_ADDR_EQUAL(&*again, &*chosen));
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  std::span<const uint8_t> bytes(data, size);
  const auto destination = take<in6_addr>(bytes);
  const ExactCopy copy(bytes);
  auto rest = copy.bytes();
  std::vector<HostAddress> addresses;
  while (const auto message = take_message(rest)) {
    const auto found = read_host_address(*message);
    const auto expected = naive_address(*message);
    HOLDS(found.has_value() == expected.has_value());
    if (!found) continue;
    HOLDS(is_same(*found, *expected));
    addresses.push_back(*found);
  }
  check_choice(addresses, destination);
  return 0;
}
