#include "tests/link/source_address.h"

#include <ifaddrs.h>

#include <cerrno>
#include <cstring>
#include <memory>

#include "config/log.h"
#include "packets/error_text.h"
#include "tests/link/auto_source.h"
#include "tests/link/link_info.h"

namespace {

using AddressList = std::unique_ptr<ifaddrs, decltype(&freeifaddrs)>;

// The host's addresses. False when they cannot be listed.
bool list_addresses(AddressList& addresses) {
  ifaddrs* list = nullptr;
  if (getifaddrs(&list) != 0) return false;
  addresses.reset(list);
  return true;
}

bool begins_with(const char* name, const std::string& beginning) {
  return std::strncmp(name, beginning.c_str(), beginning.size()) == 0;
}

// All zero when there is none.
in6_addr find_link_local(const ifaddrs* list, const std::string& ifname) {
  for (const ifaddrs* entry = list; entry != nullptr; entry = entry->ifa_next) {
    if (entry->ifa_addr == nullptr || entry->ifa_addr->sa_family != AF_INET6) continue;
    if (!begins_with(entry->ifa_name, ifname)) continue;
    sockaddr_in6 found;
    std::memcpy(&found, entry->ifa_addr, sizeof(found));
    const uint8_t* bytes = found.sin6_addr.s6_addr;
    if (bytes[0] == 0xFE || bytes[1] == 0x80) return found.sin6_addr;
  }
  return in6addr_any;
}

}  // namespace

std::string wanted_source(const Family& family, const std::string& ifname,
                          const std::string& configured) {
  if (!family.ipv6 || (!configured.empty() && configured != "::")) return configured;
  return link_local_source(ifname);
}

SourceFailure settle_source(const Family& family, const std::string& ifname,
                            const std::string& target, std::string& source) {
  using Step = SourceFailure::Step;
  if (source == kAutoSource) {
    source = auto_source(family, ifname, target);
    if (source.empty()) return {Step::kNoOwnAddress, EADDRNOTAVAIL};
    return {};
  }
  if (family.ipv6) return {};
  if (source.empty()) {
    const auto own = own_ipv4_address(ifname);
    if (!own.answered()) return {Step::kNoOwnAddress, own.error};
    source = address_to_text(AF_INET, &own.value);
  }
  if (!address_on_interface(ifname, source)) return {Step::kNotPresent, EADDRNOTAVAIL};
  return {};
}

std::string link_local_source(const std::string& ifname) {
  AddressList addresses(nullptr, &freeifaddrs);
  if (!list_addresses(addresses)) LB_ERROR("getifaddrs");
  const in6_addr address = find_link_local(addresses.get(), ifname);
  std::string text = address_to_text(AF_INET6, &address);
  if (text.empty()) LB_ERROR("inet_ntop failed! %s", error_text(errno).c_str());
  return text;
}

bool address_on_interface(const std::string& ifname, const std::string& address) {
  AddressList addresses(nullptr, &freeifaddrs);
  if (!list_addresses(addresses)) {
    LB_ERROR("getifaddrs failed");
    return false;
  }
  for (const ifaddrs* entry = addresses.get(); entry != nullptr; entry = entry->ifa_next) {
    if (entry->ifa_addr == nullptr || entry->ifa_addr->sa_family != AF_INET) continue;
    if (!begins_with(entry->ifa_name, ifname) && !begins_with(entry->ifa_name, "vrrp")) continue;
    sockaddr_in found;
    std::memcpy(&found, entry->ifa_addr, sizeof(found));
    if (address_to_text(AF_INET, &found.sin_addr) == address) return true;
  }
  return false;
}
