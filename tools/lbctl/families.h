// Families as they are asked for and named.
#pragma once

namespace lbctl {

struct Families {
  bool ipv4 = true;
  bool ipv6 = true;
  bool has(bool is_ipv6) const { return is_ipv6 ? ipv6 : ipv4; }
};

inline const char* family_word(bool ipv6) { return ipv6 ? "ipv6" : "ipv4"; }
inline const char* family_name(bool ipv6) { return ipv6 ? "IPv6" : "IPv4"; }

}  // namespace lbctl
