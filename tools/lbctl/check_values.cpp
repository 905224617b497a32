#include "lbctl/check_values.h"

#include <algorithm>
#include <array>
#include <cctype>
#include <cerrno>
#include <cstdlib>

#include "lbctl/kernel_table.h"
#include "packets/family.h"

namespace lbctl {

namespace {

constexpr std::string_view kWhiteSpace = " \t\v\f\r\n";

bool is_alphanumeric(char character) {
  return std::isalnum(static_cast<unsigned char>(character)) != 0;
}

bool parse(const std::string& text, bool ipv6, in6_addr& address) {
  return address_from_text(family_of(ipv6).address_family, text, &address) == 1;
}

}  // namespace

Number read_number(const std::string& text) {
  Number number;
  errno = 0;
  char* end = nullptr;
  number.value = std::strtoll(text.c_str(), &end, 10);
  number.has_digits = end != text.c_str();
  const auto stop = static_cast<size_t>(end - text.c_str());
  number.has_rest = text.find_first_not_of(kWhiteSpace, stop) != std::string::npos;
  number.fits = errno == 0 && number.value == static_cast<int32_t>(number.value);
  return number;
}

AddressKind kind_of_address(const std::string& text) {
  in6_addr address{};
  if (parse(text, false, address)) return AddressKind::kIpv4;
  return parse(text, true, address) ? AddressKind::kIpv6 : AddressKind::kNone;
}

std::string canonical_address(const std::string& text) {
  const AddressKind kind = kind_of_address(text);
  if (kind == AddressKind::kNone) return {};
  const bool ipv6 = kind == AddressKind::kIpv6;
  in6_addr address{};
  parse(text, ipv6, address);
  return address_to_text(family_of(ipv6).address_family, &address);
}

bool is_neighbour_address(const std::string& address) {
  in6_addr parsed{};
  const uint8_t* const bytes = parsed.s6_addr;
  if (parse(address, false, parsed)) return bytes[0] != 0 && bytes[0] != 127 && bytes[0] < 224;
  if (!parse(address, true, parsed)) return false;
  return bytes[0] != 0xFF &&
         !std::all_of(bytes, bytes + 10, [](uint8_t byte) { return byte == 0; });
}

bool is_link_local(const std::string& address) {
  in6_addr parsed{};
  return parse(address, true, parsed) && IN6_IS_ADDR_LINKLOCAL(&parsed);
}

bool is_host_name(const std::string& text) {
  const bool has_letter = std::any_of(text.begin(), text.end(), [](unsigned char character) {
    return std::isalpha(character) != 0;
  });
  return has_letter && is_alphanumeric(text.front()) &&
         std::all_of(text.begin(), text.end(), [](char character) {
           return is_alphanumeric(character) || character == '.' || character == '-' ||
                  character == '_';
         });
}

PrefixText read_destination(const std::string& text, bool ipv6) {
  PrefixText destination{.canonical = canonical_destination(text, ipv6)};
  if (destination.canonical.empty()) return destination;
  const size_t slash = text.find('/');
  destination.is_plain = slash != std::string::npos &&
                         canonical_address(text.substr(0, slash)) ==
                             destination.canonical.substr(0, destination.canonical.find('/'));
  return destination;
}

bool is_safe_name(const std::string& name) {
  return std::all_of(name.begin(), name.end(), [](char character) {
    return is_alphanumeric(character) || character == '.' || character == '_' || character == '-';
  });
}

}  // namespace lbctl
