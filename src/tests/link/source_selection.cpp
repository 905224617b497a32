#include "tests/link/source_selection.h"

#include <algorithm>
#include <array>
#include <bit>
#include <cstddef>
#include <cstring>

namespace {

// RFC 4007 and RFC 4291 section 2.7, as far as unicast addresses have them.
constexpr int kLinkLocal = 0x2;
constexpr int kSiteLocal = 0x5;
constexpr int kGlobal = 0xe;

int scope_of(const in6_addr& address) {
  if (IN6_IS_ADDR_MULTICAST(&address)) return address.s6_addr[1] & 0x0f;
  if (IN6_IS_ADDR_LINKLOCAL(&address) || IN6_IS_ADDR_LOOPBACK(&address)) return kLinkLocal;
  return IN6_IS_ADDR_SITELOCAL(&address) ? kSiteLocal : kGlobal;
}

// How many bits two addresses begin with in common.
int common_prefix(const in6_addr& a, const in6_addr& b) {
  for (size_t i = 0; i < sizeof(a.s6_addr); ++i) {
    const auto different = static_cast<uint8_t>(a.s6_addr[i] ^ b.s6_addr[i]);
    if (different != 0) return static_cast<int>(8 * i) + std::countl_zero(different);
  }
  return 128;
}

// An entry of RFC 6724 section 2.1; the precedence is for destinations.
struct Policy {
  in6_addr prefix;
  int length;
  int label;
};

constexpr in6_addr prefix_of(std::array<uint8_t, 4> start) {
  in6_addr prefix{};
  std::copy(start.begin(), start.end(), prefix.s6_addr);
  return prefix;
}

constexpr in6_addr mapped_prefix() {
  in6_addr prefix{};
  prefix.s6_addr[10] = prefix.s6_addr[11] = 0xff;
  return prefix;
}

// Longer prefixes first, so that the first that matches is the longest.
constexpr std::array kPolicies{
    Policy{IN6ADDR_LOOPBACK_INIT, 128, 0},
    Policy{mapped_prefix(), 96, 4},
    Policy{IN6ADDR_ANY_INIT, 96, 3},                // ::/96, formerly IPv4-compatible
    Policy{prefix_of({0x20, 0x01, 0, 0}), 32, 5},   // Teredo
    Policy{prefix_of({0x20, 0x02, 0, 0}), 16, 2},   // 6to4
    Policy{prefix_of({0x3f, 0xfe, 0, 0}), 16, 12},  // formerly 6bone
    Policy{prefix_of({0xfe, 0xc0, 0, 0}), 10, 11},  // formerly site-local
    Policy{prefix_of({0xfc, 0, 0, 0}), 7, 13},      // unique local
    Policy{IN6ADDR_ANY_INIT, 0, 1},
};

int label_of(const in6_addr& address) {
  return std::find_if(kPolicies.begin(), kPolicies.end(),
                      [&](const Policy& policy) {
                        return common_prefix(policy.prefix, address) >= policy.length;
                      })
      ->label;
}

bool is_same(const in6_addr& a, const in6_addr& b) { return IN6_ARE_ADDR_EQUAL(&a, &b); }

bool is_verified(const HostAddress& address) {
  if ((address.flags & IFA_F_DADFAILED) != 0) return false;
  return (address.flags & IFA_F_TENTATIVE) == 0 || (address.flags & IFA_F_OPTIMISTIC) != 0;
}

// The rules, for one destination and interface.
class Chooser {
 public:
  Chooser(const in6_addr& destination, unsigned int ifindex)
      : destination_(destination), ifindex_(ifindex) {}

  bool is_candidate(const HostAddress& address) const {
    if (IN6_IS_ADDR_UNSPECIFIED(&address.address) || IN6_IS_ADDR_MULTICAST(&address.address)) {
      return false;
    }
    const bool is_local =
        scope_of(address.address) == kLinkLocal || scope_of(destination_) == kLinkLocal;
    return is_verified(address) && (!is_local || address.ifindex == ifindex_);
  }

  // By the first rule that makes a difference.
  bool is_better(const HostAddress& a, const HostAddress& b) const {
    if (const auto same =
            differ(is_same(a.address, destination_), is_same(b.address, destination_))) {
      return *same;
    }
    const int scope_a = scope_of(a.address);
    const int scope_b = scope_of(b.address);
    if (scope_a != scope_b) return is_better_scope(scope_a, scope_b);
    if (const auto current = differ(!has(a, IFA_F_DEPRECATED), !has(b, IFA_F_DEPRECATED))) {
      return *current;
    }
    if (const auto own = differ(a.ifindex == ifindex_, b.ifindex == ifindex_)) return *own;
    const int label = label_of(destination_);
    if (const auto alike = differ(label_of(a.address) == label, label_of(b.address) == label)) {
      return *alike;
    }
    if (const auto stable = differ(!has(a, IFA_F_TEMPORARY), !has(b, IFA_F_TEMPORARY))) {
      return *stable;
    }
    return match(a) > match(b);
  }

 private:
  // Which of two is right, if only one is.
  static std::optional<bool> differ(bool a, bool b) {
    return a == b ? std::nullopt : std::optional(a);
  }

  static bool has(const HostAddress& address, uint32_t flag) { return (address.flags & flag) != 0; }

  // The narrower one does if it reaches as far as the destination.
  bool is_better_scope(int a, int b) const {
    return a < b ? a >= scope_of(destination_) : b < scope_of(destination_);
  }

  int match(const HostAddress& address) const {
    return std::min(common_prefix(address.address, destination_), int{address.prefix_length});
  }

  const in6_addr destination_;
  const unsigned int ifindex_;
};

}  // namespace

std::optional<in6_addr> select_source(std::span<const HostAddress> addresses,
                                      const in6_addr& destination, unsigned int ifindex) {
  const Chooser chooser(destination, ifindex);
  const HostAddress* best = nullptr;
  for (const HostAddress& address : addresses) {
    if (!chooser.is_candidate(address)) continue;
    if (best == nullptr || chooser.is_better(address, *best)) best = &address;
  }
  return best == nullptr ? std::nullopt : std::optional(best->address);
}
