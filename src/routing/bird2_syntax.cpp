#include "routing/bird2_syntax.h"

#include <net/if.h>
#include <netinet/in.h>

#include <algorithm>
#include <array>
#include <cctype>
#include <span>

#include "config/log.h"
#include "packets/family.h"
#include "routing/bird2_words.h"
#include "routing/route_words.h"

namespace {

constexpr int64_t kLargestWeight = 256;

// An address of either family in network byte order; `size` bytes of it count.
struct Address {
  std::array<uint8_t, sizeof(in6_addr)> bytes{};
  size_t size = 0;
};

std::optional<Address> parse(const std::string& text, bool ipv6) {
  Address address{.size = ipv6 ? sizeof(in6_addr) : sizeof(in_addr)};
  if (address_from_text(family_of(ipv6).address_family, text, address.bytes.data()) != 1) {
    return std::nullopt;
  }
  return address;
}

// False for what no neighbour has: unspecified, loopback, multicast, reserved, an IPv4 address in
// IPv6 form.
bool is_host(const Address& address) {
  const auto& bytes = address.bytes;
  if (address.size == sizeof(in_addr)) return bytes[0] != 0 && bytes[0] != 127 && bytes[0] < 224;
  const bool is_low =
      std::all_of(bytes.begin(), bytes.begin() + 10, [](uint8_t byte) { return byte == 0; });
  return !is_low && bytes[0] != 0xFF;
}

// A name in BIRD's quotes has only these characters, and is none of its own words.
bool has_name_for(const std::string& device) {
  return !device.empty() && device.size() < IF_NAMESIZE && !is_bird2_word(device) &&
         std::all_of(device.begin(), device.end(), [](unsigned char character) {
           return std::isalnum(character) != 0 || character == '-' || character == '_' ||
                  character == '.' || character == ':';
         });
}

void clear_host_bits(Address& address, size_t length) {
  for (size_t bit = length; bit < address.size * 8; ++bit) {
    address.bytes[bit / 8] &= static_cast<uint8_t>(~(0x80U >> (bit % 8)));
  }
}

// Empty when `text` is no destination of the family.
std::string canonical_prefix(const std::string& text, bool ipv6) {
  if (text == "default") return ipv6 ? "::/0" : "0.0.0.0/0";
  const size_t slash = text.find('/');
  auto address = parse(text.substr(0, slash), ipv6);
  if (!address) return "";
  size_t length = address->size * 8;
  if (slash != std::string::npos) {
    size_t given = 0;
    const char* const end = text.data() + text.size();
    const auto [stop, error] = std::from_chars(text.data() + slash + 1, end, given);
    if (error != std::errc() || stop != end || given > length) return "";
    length = given;
  }
  clear_host_bits(*address, length);
  return address_to_text(family_of(ipv6).address_family, address->bytes.data()) + "/" +
         std::to_string(length);
}

// What is wrong with the next hop; null when nothing is.
const char* fault_of(const Nexthop& nexthop, bool ipv6) {
  const auto address = parse(nexthop.address, ipv6);
  if (!address || !is_host(*address)) return "not the address of a host";
  if (!has_name_for(nexthop.device)) return "bird2 cannot name the device";
  return nullptr;
}

int64_t largest_weight(const StaticRoute& route) {
  int64_t largest = 1;
  for (const Nexthop& nexthop : route.nexthops) {
    largest = std::max<int64_t>(largest, nexthop.weight);
  }
  return largest;
}

// To the nearest.
int64_t scaled(int64_t weight, int64_t largest) {
  if (largest <= kLargestWeight) return weight;
  return std::max<int64_t>(1, (2 * weight * kLargestWeight + largest) / (2 * largest));
}

// "ADDRESS%'DEVICE'"
bool split_nexthop(const std::string& text, Nexthop& nexthop) {
  const size_t percent = text.find("%'");
  if (percent == std::string::npos || text.back() != '\'') return false;
  nexthop.address = text.substr(0, percent);
  nexthop.device = text.substr(percent + 2, text.size() - percent - 3);
  return true;
}

}  // namespace

bool Bird2Syntax::takes(const RuleMember& member, const Nexthop& nexthop, bool ipv6) const {
  if (nexthop.address.empty()) return false;
  const char* const fault = fault_of(nexthop, ipv6);
  if (fault == nullptr) return true;
  LB_WARNING("wan_lb: rule %s: next hop '%s' of interface %s (%s) left out: %s",
             member.rule.c_str(), nexthop.address.c_str(), member.interface.c_str(),
             nexthop.device.c_str(), fault);
  return false;
}

std::string Bird2Syntax::destination(const RuleTarget& target, bool ipv6) const {
  std::string prefix = canonical_prefix(target.text, ipv6);
  // To the members of each family the destinations of their own.
  const bool is_of_other = target.of_both_families && !canonical_prefix(target.text, !ipv6).empty();
  if (prefix.empty() && !is_of_other) {
    LB_WARNING("wan_lb: rule %s: destination '%s' left out: no IPv%d address or prefix",
               target.rule.c_str(), target.text.c_str(), family_of(ipv6).version);
  }
  return prefix;
}

std::string Bird2Syntax::written_destination(const std::string& text, bool ipv6) const {
  return canonical_prefix(text, ipv6);
}

std::string Bird2Syntax::line(const StaticRoute& route) const {
  std::string line = "route " + route.destination;
  const int64_t largest = largest_weight(route);
  for (const Nexthop& nexthop : route.nexthops) {
    line += " via ";
    line += nexthop.address;
    line += "%'";
    line += nexthop.device;
    line += "' onlink weight ";
    line += std::to_string(scaled(nexthop.weight, largest));
  }
  if (route.metric != -1) {
    line += " { krt_metric = " + std::to_string(static_cast<uint32_t>(route.metric)) + "; }";
  }
  line += ";\n";
  return line;
}

std::optional<StaticRoute> Bird2Syntax::parse(const std::string& line, bool ipv6) const {
  RouteWords words(line);
  StaticRoute route;
  if (!words.take("route") || !words.take_text(route.destination) ||
      canonical_prefix(route.destination, ipv6) != route.destination) {
    return std::nullopt;
  }
  while (words.take("via")) {
    Nexthop& nexthop = route.nexthops.emplace_back();
    std::string text;
    if (!words.take_text(text) || !split_nexthop(text, nexthop) ||
        fault_of(nexthop, ipv6) != nullptr || !words.take("onlink") || !words.take("weight") ||
        !words.take_number(nexthop.weight) || nexthop.weight < 1) {
      return std::nullopt;
    }
  }
  if (words.take("{")) {
    uint32_t metric = 0;
    std::string text;
    if (!words.take("krt_metric") || !words.take("=") || !words.take_text(text)) {
      return std::nullopt;
    }
    if (!RouteWords(text).take_number(metric)) return std::nullopt;
    route.metric = static_cast<int32_t>(metric);
  }
  return written_as(*this, route, line);
}
