// Values of a configuration's keywords as the daemon understands them.
#pragma once

#include <cstdint>
#include <optional>
#include <string>

namespace lbctl {

struct Number {
  bool has_digits = false;
  bool has_rest = false;  // behind the digits; the reader stops there
  bool fits = false;      // what the reader keeps (32 bits, signed) is what is written
  int64_t value = 0;      // as written, or the nearest that 64 bits hold
};

// A number as the reader converts it: blanks and a sign may stand before the digits.
Number read_number(const std::string& text);

enum class AddressKind { kNone, kIpv4, kIpv6 };

AddressKind kind_of_address(const std::string& text);

// The form in which addresses are compared; empty for what is no address.
std::string canonical_address(const std::string& text);

// False for what no neighbour has: unspecified, loopback, multicast, reserved.
bool is_neighbour_address(const std::string& address);
bool is_link_local(const std::string& address);

// True for a text that may be the name of a host: not for one of digits and dots alone.
bool is_host_name(const std::string& text);

// A destination, as a rule has it.
struct PrefixText {
  std::string canonical;  // empty: none of the family
  bool is_plain = false;  // as BIRD takes it: with a length and without host bits
};
PrefixText read_destination(const std::string& text, bool ipv6);

// Letters, digits, ".", "_" and "-" alone.
bool is_safe_name(const std::string& name);

}  // namespace lbctl
