#include "tests/link/source_address.h"

#include <cerrno>

#include "config/log.h"
#include "packets/error_text.h"
#include "tests/link/auto_source.h"

namespace {

// Looks link-local, loosely.
bool may_be_link_local(const InterfaceAddress& address) {
  const uint8_t* bytes = address.bytes.s6_addr;
  return address.family == AF_INET6 && (bytes[0] == 0xFE || bytes[1] == 0x80);
}

}  // namespace

std::string wanted_source(HostAddresses& addresses, const Family& family, const std::string& ifname,
                          const std::string& configured) {
  if (!family.ipv6 || (!configured.empty() && configured != "::")) return configured;
  return link_local_source(addresses, ifname);
}

SourceFailure settle_source(LinkInfo& link, const Family& family, const std::string& ifname,
                            const std::string& target, std::string& source) {
  using Step = SourceFailure::Step;
  if (source == kAutoSource) {
    source = auto_source(family, ifname, target);
    if (source.empty()) return {Step::kNoOwnAddress, EADDRNOTAVAIL};
    return {};
  }
  if (family.ipv6) return {};
  if (source.empty()) {
    const auto own = link.own_ipv4_address(ifname);
    if (!own.answered()) return {Step::kNoOwnAddress, own.error};
    source = address_to_text(AF_INET, &own.value);
  }
  if (!address_on_interface(link.addresses(), ifname, source)) {
    return {Step::kNotPresent, EADDRNOTAVAIL};
  }
  return {};
}

std::string link_local_source(HostAddresses& addresses, const std::string& ifname) {
  if (!addresses.refresh()) LB_ERROR("getifaddrs");
  const InterfaceAddress* const found = addresses.find(ifname, may_be_link_local);
  std::string text = address_to_text(AF_INET6, found == nullptr ? &in6addr_any : &found->bytes);
  if (text.empty()) LB_ERROR("inet_ntop failed! %s", error_text(errno).c_str());
  return text;
}

bool address_on_interface(HostAddresses& addresses, const std::string& ifname,
                          const std::string& address) {
  if (!addresses.refresh()) {
    LB_ERROR("getifaddrs failed");
    return false;
  }
  const auto is_same = [&](const InterfaceAddress& each) {
    return each.family == AF_INET && address_to_text(AF_INET, &each.bytes) == address;
  };
  return addresses.find(ifname, is_same) != nullptr || addresses.find("vrrp", is_same) != nullptr;
}
