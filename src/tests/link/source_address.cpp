#include "tests/link/source_address.h"

#include <ifaddrs.h>
#include <netinet/in.h>

#include <cerrno>
#include <cstring>
#include <memory>

#include "config/log.h"
#include "packets/error_text.h"
#include "packets/family.h"

namespace {

// All zero when there is none.
in6_addr find_link_local(const ifaddrs* list, const std::string& ifname) {
  for (const ifaddrs* entry = list; entry != nullptr; entry = entry->ifa_next) {
    if (entry->ifa_addr == nullptr || entry->ifa_addr->sa_family != AF_INET6) continue;
    if (std::strncmp(entry->ifa_name, ifname.c_str(), ifname.size()) != 0) continue;
    sockaddr_in6 found;
    std::memcpy(&found, entry->ifa_addr, sizeof(found));
    const uint8_t* bytes = found.sin6_addr.s6_addr;
    if (bytes[0] == 0xFE || bytes[1] == 0x80) return found.sin6_addr;
  }
  return in6addr_any;
}

}  // namespace

std::string link_local_source(const std::string& ifname) {
  ifaddrs* list = nullptr;
  if (getifaddrs(&list) != 0) {
    LB_ERROR("getifaddrs");
    list = nullptr;
  }
  const std::unique_ptr<ifaddrs, decltype(&freeifaddrs)> owner(list, &freeifaddrs);
  const in6_addr address = find_link_local(list, ifname);
  std::string text = address_to_text(AF_INET6, &address);
  if (text.empty()) LB_ERROR("inet_ntop failed! %s", error_text(errno).c_str());
  return text;
}
